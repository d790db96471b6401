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
    using ErrorSlot = std::optional<Error>*;

    static std::optional<Data> rawDataForKey(const Text& key, const Text& service,
                                             const Text& accessGroup, ErrorSlot error);
    static std::optional<Data> rawDataForKey(const Text& key, const Text& service,
                                             ErrorSlot error);
    static Text itemForKey(const Text& key, const Text& service, const Text& accessGroup,
                           ErrorSlot error);
    static Text itemForKey(const Text& key, const Text& service, ErrorSlot error);
    static bool saveItem(const Text& item, const Text& key, const Text& service,
                         const Text& accessGroup, KeychainAccessibility accessibility,
                         ErrorSlot error);
    static bool saveItem(const Text& item, const Text& key, const Text& service, ErrorSlot error);
    static bool deleteItemForKey(const Text& key, const Text& service, const Text& accessGroup,
                                 ErrorSlot error);
    static bool deleteItemForKey(const Text& key, const Text& service, ErrorSlot error);

    static Error _errorForResultCode(OSStatus resultCode, const Text& key, const Text& service);
    static KeychainQuery _baseQueryDictionaryForKey(const Text& key, const Text& service,
                                                    const Text& accessGroup);
    static std::optional<KeychainItemAttributes> _itemAttributesAndDataForKey(
        const Text& key, const Text& service, const Text& accessGroup, ErrorSlot error);
};

}  // namespace NorvAnalytic
