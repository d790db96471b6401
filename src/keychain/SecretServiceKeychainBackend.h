#pragma once

#include <NorvAnalytic/KeychainBackend.h>

#include <filesystem>
#include <memory>
#include <string>

#include "keychain/StoreChangeWatch.h"

namespace NorvAnalytic {

class SecretServiceItems;

// A keychain in the desktop's Secret Service (gnome-keyring, KWallet): each item is a secret
// whose schema attributes are its account, service, access group and accessibility. It never
// asks for an unlock prompt: a locked or missing collection answers errSecInteractionNotAllowed.
// The service is called on a thread of ours (norv-secret), which each call waits for 3 s at
// most: a daemon that does not answer fails the call with errSecInteractionNotAllowed, said
// once on the diagnostics sink. A daemon that was restarted is connected to again, with a new
// session, by the next call. Its signals tell of another process's changes.
class SecretServiceKeychainBackend final : public KeychainBackend, public StoreChangeWatch {
public:
    static constexpr const char* kDefaultSchemaName = "com.norvanalytic.GenericPassword";
    static constexpr const char* kDefaultCollectionAlias = "default";

    // Items of different schema names never see each other. New items go to the collection
    // behind the alias ("session" is the daemon's in-memory collection); all are searched.
    explicit SecretServiceKeychainBackend(
        const std::string& schemaName = kDefaultSchemaName,
        const std::string& collectionAlias = kDefaultCollectionAlias);
    ~SecretServiceKeychainBackend() override;
    SecretServiceKeychainBackend(const SecretServiceKeychainBackend&) = delete;
    SecretServiceKeychainBackend& operator=(const SecretServiceKeychainBackend&) = delete;

    OSStatus copyMatching(const KeychainQuery& query, KeychainItemAttributes* result) override;
    // Adds to the aliased collection. A duplicate is refused within this process; across
    // processes only inside writeTransaction.
    OSStatus add(const KeychainQuery& attributes) override;
    OSStatus update(const KeychainQuery& query, const KeychainQuery& changes) override;
    OSStatus remove(const KeychainQuery& query) override;
    // The service has no transactions: processes on one schema take turns through a lock file,
    // <data directory>/NorvAnalytic/<schema name>.lock, so no add comes between another's
    // lookup and its add.
    OSStatus writeTransaction(const std::function<OSStatus()>& body) override;
    // Only while the daemon's signals cannot be had: another process's change is told otherwise.
    std::optional<std::chrono::milliseconds> identityRefreshInterval() const override;
    int changeDescriptor() override;
    bool takeChanges() override;

private:
    // Declared only, so that no glib type shows here; shared with the calls on the link's thread.
    std::shared_ptr<const SecretServiceItems> items_;
    std::filesystem::path lockPath_;
};

}  // namespace NorvAnalytic
