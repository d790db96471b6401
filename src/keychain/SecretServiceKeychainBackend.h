#pragma once

#include <NorvAnalytic/KeychainBackend.h>

#include <filesystem>
#include <memory>
#include <string>

namespace NorvAnalytic {

// A keychain in the desktop's Secret Service (gnome-keyring, KWallet): each item is a secret
// whose schema attributes are its account, service, access group and accessibility. It never
// asks for an unlock prompt: a locked or missing collection answers errSecInteractionNotAllowed.
class SecretServiceKeychainBackend final : public KeychainBackend {
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
    std::optional<std::chrono::milliseconds> identityRefreshInterval() const override;

private:
    // The libsecret objects, kept out of this header so a host never sees glib types.
    struct Session;
    std::unique_ptr<Session> session_;
    std::filesystem::path lockPath_;
};

}  // namespace NorvAnalytic
