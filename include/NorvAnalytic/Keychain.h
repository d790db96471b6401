#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/KeychainBackend.h>
#include <NorvAnalytic/Types.h>

#include <cstdint>
#include <optional>
#include <string>

extern "C" {
// The error domain of every error the keychain store reports.
NORVANALYTIC_EXPORT extern const char* const BrixKeychainErrorDomain;
}

namespace NorvAnalytic {

// When a saved item may be read.
enum KeychainAccessibility : std::intptr_t {
    KeychainAccessibilityWhenUnlocked = 0,
    KeychainAccessibilityAfterFirstUnlock = 1,
};

// A store of string items in the keychain, addressed by key and service (and, in device
// builds, an access group). Failures come back through an optional error slot; an empty key
// or service throws std::invalid_argument.
class NORVANALYTIC_EXPORT Keychain {
public:
    // Receives the error of a failed call when non-null; left untouched on success.
    using ErrorSlot = std::optional<Error>*;

    // The stored bytes exactly as kept, or nullopt.
    static std::optional<Data> rawDataForKey(const Text& key, const Text& service,
                                             const Text& accessGroup, ErrorSlot error);
    // rawDataForKey without an access group.
    static std::optional<Data> rawDataForKey(const Text& key, const Text& service,
                                             ErrorSlot error);
    // The stored string, or nullopt; bytes that are no archived item fail with code 21.
    static Text itemForKey(const Text& key, const Text& service, const Text& accessGroup,
                           ErrorSlot error);
    // itemForKey without an access group.
    static Text itemForKey(const Text& key, const Text& service, ErrorSlot error);
    // Adds or replaces the item; a nullopt item deletes it (by key and service only).
    static bool saveItem(const Text& item, const Text& key, const Text& service,
                         const Text& accessGroup, KeychainAccessibility accessibility,
                         ErrorSlot error);
    // saveItem without an access group, readable after first unlock.
    static bool saveItem(const Text& item, const Text& key, const Text& service, ErrorSlot error);
    // Removes the item; false, with a wrapping error, when there was none.
    static bool deleteItemForKey(const Text& key, const Text& service, const Text& accessGroup,
                                 ErrorSlot error);
    // deleteItemForKey without an access group.
    static bool deleteItemForKey(const Text& key, const Text& service, ErrorSlot error);

    // The store's error, with its fixed message, for a keychain status.
    static Error _errorForResultCode(OSStatus resultCode, const Text& key, const Text& service);
    // The query naming one item; the access group only in device builds and when non-empty.
    static KeychainQuery _baseQueryDictionaryForKey(const Text& key, const Text& service,
                                                    const Text& accessGroup);
    // The first matching item's attributes and payload, or nullopt with the status's error.
    static std::optional<KeychainItemAttributes> _itemAttributesAndDataForKey(
        const Text& key, const Text& service, const Text& accessGroup, ErrorSlot error);
};

}  // namespace NorvAnalytic
