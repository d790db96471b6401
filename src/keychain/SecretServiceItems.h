#pragma once

#include <NorvAnalytic/KeychainBackend.h>
#include <libsecret/secret.h>

#include <string>

namespace NorvAnalytic {

// The items of one schema in the Secret Service, each a secret whose schema attributes are its
// account, service, access group and accessibility. Read, added, changed and deleted on a
// service that the link connected, on the link's thread; nothing is ever unlocked. A call of the
// service that fails is handed to SecretServiceLink::failed, so that the link connects anew.
class SecretServiceItems {
public:
    SecretServiceItems(const std::string& schemaName, std::string collectionAlias);
    ~SecretServiceItems();
    SecretServiceItems(const SecretServiceItems&) = delete;
    SecretServiceItems& operator=(const SecretServiceItems&) = delete;

    OSStatus copyMatching(SecretService* service, GCancellable* cancellable,
                          const KeychainQuery& query, KeychainItemAttributes& found) const;
    // Adds to the collection behind the alias, unless an item of the same identity exists.
    OSStatus add(SecretService* service, GCancellable* cancellable,
                 const KeychainQuery& attributes) const;
    OSStatus update(SecretService* service, GCancellable* cancellable, const KeychainQuery& query,
                    const KeychainQuery& changes) const;
    OSStatus remove(SecretService* service, GCancellable* cancellable,
                    const KeychainQuery& query) const;

private:
    std::string collectionAlias_;
    SecretSchema* schema_;
};

}  // namespace NorvAnalytic
