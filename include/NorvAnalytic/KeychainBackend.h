#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/Types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace NorvAnalytic {

// The keychain's status codes that carry their own meaning.
inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecDuplicateItem = -25299;
inline constexpr OSStatus errSecItemNotFound = -25300;
inline constexpr OSStatus errSecInteractionNotAllowed = -25308;

// kSecAttrAccessible values a save may set.
enum class KeychainItemAccessible { WhenUnlocked, AfterFirstUnlock };

// A query or attribute set over generic-password items: the base query (account, service,
// access group) plus whatever the operation adds.
struct KeychainQuery {
    std::string account;
    std::string service;
    Text accessGroup;
    std::optional<KeychainItemAccessible> accessible;
    std::optional<Data> valueData;
};

// One stored generic-password item: its attributes and its payload.
struct KeychainItemAttributes {
    std::string account;
    std::string service;
    Text accessGroup;
    std::optional<KeychainItemAccessible> accessible;
    Data valueData;
};

// The store under Keychain. Every call answers a keychain status; implementations are safe to
// call from any thread. A query without an access group matches items of every group.
class NORVANALYTIC_EXPORT KeychainBackend {
public:
    // The default keychain: an owner-only SQLite file at path, or, without one, at
    // $XDG_DATA_HOME/NorvAnalytic/keychain.sqlite (~/.local/share without XDG_DATA_HOME).
    static std::shared_ptr<KeychainBackend> makeFileBackend(const Text& path = std::nullopt);
    // The desktop's Secret Service (gnome-keyring, KWallet), for Platform::setKeychainBackend.
    // It never prompts: a locked keyring answers errSecInteractionNotAllowed.
    static std::shared_ptr<KeychainBackend> makeSecretServiceBackend();

    virtual ~KeychainBackend() = default;
    // Fills result (when non-null) with the first matching item.
    virtual OSStatus copyMatching(const KeychainQuery& query, KeychainItemAttributes* result) = 0;
    // Stores a new item; errSecDuplicateItem when its account, service and group exist.
    virtual OSStatus add(const KeychainQuery& attributes) = 0;
    // Sets the changes' valueData and accessible (those present) on every matching item.
    virtual OSStatus update(const KeychainQuery& query, const KeychainQuery& changes) = 0;
    // Deletes every matching item.
    virtual OSStatus remove(const KeychainQuery& query) = 0;

    // Runs body, whose calls on this store make up one save, so that no writer in another
    // process comes between them; a status other than errSecSuccess from body undoes them.
    // The default just runs body: Keychain's own lock already keeps this process's threads
    // apart, so override it only when other processes share the store.
    virtual OSStatus writeTransaction(const std::function<OSStatus()>& body);
    // How often the SDK may re-read the device identity (UUID and user id) from this store on
    // a thread of its own and hand it to event calls from memory in between. The default,
    // nullopt, reads the store on every event: a host's store may be changed by the host's own
    // code without Keychain knowing, so only the host can say how late a change may be seen.
    virtual std::optional<std::chrono::milliseconds> identityRefreshInterval() const;
};

}  // namespace NorvAnalytic
