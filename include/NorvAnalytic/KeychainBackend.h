#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/Types.h>

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
    bool matchLimitOne = false;
    bool returnAttributes = false;
    bool returnData = false;
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
// call from any thread.
class NORVANALYTIC_EXPORT KeychainBackend {
public:
    virtual ~KeychainBackend() = default;
    virtual OSStatus copyMatching(const KeychainQuery& query, KeychainItemAttributes* result) = 0;
    virtual OSStatus add(const KeychainQuery& attributes) = 0;
    virtual OSStatus update(const KeychainQuery& query, const KeychainQuery& changes) = 0;
    virtual OSStatus remove(const KeychainQuery& query) = 0;
};

}  // namespace NorvAnalytic
