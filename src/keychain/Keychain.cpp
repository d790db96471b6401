#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>

#include <mutex>
#include <stdexcept>

#include "BuildConfig.h"
#include "keychain/KeychainArchive.h"
#include "keychain/KeychainItemCache.h"

extern "C" {
const char* const BrixKeychainErrorDomain = NorvAnalytic::BuildConfig::kKeychainErrorDomain;
}

namespace NorvAnalytic {

namespace {

constexpr const char* kSaveSelector =
    "+[Keychain saveItem:forKey:forService:inAccessGroup:withAccessibility:error:]";
constexpr const char* kDeleteSelector =
    "+[Keychain deleteItemForKey:forService:inAccessGroup:error:]";
constexpr const char* kLookupSelector =
    "+[Keychain _itemAttributesAndDataForKey:forService:inAccessGroup:error:]";

// The code of the error an item read reports when the stored bytes are not an archive.
constexpr std::int64_t kUndecodableItemCode = 21;

bool isEmpty(const Text& text) { return !text || text->empty(); }

std::string describe(const Text& text) { return text ? *text : "(null)"; }

void checkArguments(const char* selector, const Text& key, const Text& service) {
    if (isEmpty(key)) {
        throw std::invalid_argument(std::string(selector) + " key argument cannot be empty");
    }
    if (isEmpty(service)) {
        throw std::invalid_argument(std::string(selector) + " service argument cannot be empty");
    }
}

void report(Keychain::ErrorSlot slot, std::optional<Error> error) {
    if (slot != nullptr) {
        *slot = std::move(error);
    }
}

// A save with this accessibility sets the attribute; any other value leaves it unset.
std::optional<KeychainItemAccessible> accessibleFor(KeychainAccessibility accessibility) {
    switch (accessibility) {
        case KeychainAccessibilityWhenUnlocked:
            return KeychainItemAccessible::WhenUnlocked;
        case KeychainAccessibilityAfterFirstUnlock:
            return KeychainItemAccessible::AfterFirstUnlock;
    }
    return std::nullopt;
}

}  // namespace

std::optional<Data> Keychain::rawDataForKey(const Text& key, const Text& service,
                                            const Text& accessGroup, ErrorSlot error) {
    auto attributes = _itemAttributesAndDataForKey(key, service, accessGroup, error);
    if (!attributes) {
        return std::nullopt;
    }
    return std::move(attributes->valueData);
}

std::optional<Data> Keychain::rawDataForKey(const Text& key, const Text& service, ErrorSlot error) {
    return rawDataForKey(key, service, std::nullopt, error);
}

Text Keychain::itemForKey(const Text& key, const Text& service, const Text& accessGroup,
                          ErrorSlot error) {
    const auto data = rawDataForKey(key, service, accessGroup, error);
    if (!data) {
        return std::nullopt;
    }
    try {
        return KeychainArchive::unarchiveItem(*data);
    } catch (const KeychainArchive::DecodingError& decodingError) {
        Error undecodable;
        undecodable.domain = BrixKeychainErrorDomain;
        undecodable.code = kUndecodableItemCode;
        undecodable.localizedFailureReason = decodingError.what();
        report(error, std::move(undecodable));
        return std::nullopt;
    }
}

Text Keychain::itemForKey(const Text& key, const Text& service, ErrorSlot error) {
    return itemForKey(key, service, std::nullopt, error);
}

bool Keychain::saveItem(const Text& item, const Text& key, const Text& service,
                        const Text& accessGroup, KeychainAccessibility accessibility,
                        ErrorSlot error) {
    checkArguments(kSaveSelector, key, service);
    if (!item) {
        // The access group is dropped here on purpose: a nil save deletes by key and service.
        return deleteItemForKey(key, service, error);
    }

    auto& cache = KeychainItemCache::shared();
    const std::lock_guard write(cache.writeLock());
    const auto backend = Platform::keychainBackend();
    const KeychainQuery query = _baseQueryDictionaryForKey(key, service, accessGroup);
    std::optional<std::optional<Error>> lookupFailure;
    const OSStatus status = backend->writeTransaction([&] {
        std::optional<Error> lookupError;
        const auto existing = _itemAttributesAndDataForKey(key, service, accessGroup, &lookupError);
        if (!existing && (!lookupError || lookupError->code != errSecItemNotFound)) {
            lookupFailure = std::move(lookupError);
            return errSecInteractionNotAllowed;
        }
        const Data archive = KeychainArchive::archivedData(*item);
        if (existing) {
            KeychainQuery changes;
            changes.valueData = archive;
            changes.accessible = accessibleFor(accessibility);
            return backend->update(query, changes);
        }
        KeychainQuery attributes = query;
        attributes.valueData = archive;
        attributes.accessible = accessibleFor(accessibility);
        return backend->add(attributes);
    });
    if (status != errSecSuccess) {
        cache.forget(*backend, *key, *service);
        // A failed lookup is handed on as it is, even when it left no error.
        report(error, lookupFailure ? std::move(*lookupFailure)
                                    : _errorForResultCode(status, key, service));
        return false;
    }
    // A group-less read may find another group's item first, so a grouped save only forgets.
    if (query.accessGroup) {
        cache.forget(*backend, *key, *service);
    } else {
        cache.wrote(*backend, *key, *service, item);
    }
    return true;
}

bool Keychain::saveItem(const Text& item, const Text& key, const Text& service, ErrorSlot error) {
    return saveItem(item, key, service, std::nullopt, KeychainAccessibilityAfterFirstUnlock, error);
}

bool Keychain::deleteItemForKey(const Text& key, const Text& service, const Text& accessGroup,
                                ErrorSlot error) {
    checkArguments(kDeleteSelector, key, service);
    auto& cache = KeychainItemCache::shared();
    const std::lock_guard write(cache.writeLock());
    const auto backend = Platform::keychainBackend();
    const KeychainQuery query = _baseQueryDictionaryForKey(key, service, accessGroup);
    const OSStatus status = backend->remove(query);
    if ((status == errSecSuccess || status == errSecItemNotFound) && !query.accessGroup) {
        cache.wrote(*backend, *key, *service, std::nullopt);
    } else {
        cache.forget(*backend, *key, *service);
    }
    if (status == errSecSuccess) {
        return true;
    }
    if (error != nullptr) {
        Error mapped = _errorForResultCode(status, key, service);
        if (mapped.code == errSecItemNotFound) {
            Error missing;
            missing.domain = BrixKeychainErrorDomain;
            missing.code = errSecItemNotFound;
            missing.localizedDescription = "Could not delete item with key '" + describe(key) +
                                           "' for service '" + describe(service) +
                                           "' from the keychain because it does not exist.";
            missing.underlyingError = std::make_shared<const Error>(std::move(mapped));
            *error = std::move(missing);
        } else {
            *error = std::move(mapped);
        }
    }
    return false;
}

bool Keychain::deleteItemForKey(const Text& key, const Text& service, ErrorSlot error) {
    return deleteItemForKey(key, service, std::nullopt, error);
}

Error Keychain::_errorForResultCode(OSStatus resultCode, const Text& key, const Text& service) {
    std::string message;
    if (resultCode == errSecInteractionNotAllowed) {
        message = "Interaction with key '" + describe(key) + "' for service '" + describe(service) +
                  "' was not allowed. It is possible that the item is only accessible when the "
                  "device is unlocked and this query is happening when the app is in the "
                  "background. Double-check your item permissions.";
    } else if (resultCode == errSecItemNotFound) {
        message = "Item with key '" + describe(key) + "' for service '" + describe(service) +
                  "' could not be found in the keychain.";
    } else if (resultCode == errSecDuplicateItem) {
        message = "Item with key '" + describe(key) + "' for service '" + describe(service) +
                  "' already exists in the keychain.";
    } else {
        // The wording, grammar included, is what hosts already match against.
        message =
            "This is a undefined error. Check SecBase.h or Apple's iOS Developer Library for "
            "more information on this Keychain Services error code.";
    }
    Error error;
    error.domain = BrixKeychainErrorDomain;
    error.code = resultCode;
    error.localizedDescription = std::move(message);
    return error;
}

KeychainQuery Keychain::_baseQueryDictionaryForKey(const Text& key, const Text& service,
                                                   const Text& accessGroup) {
    KeychainQuery query;
    query.account = key.value_or("");
    query.service = service.value_or("");
    // Simulator builds have no access groups, so the argument is ignored there.
    if (!BuildConfig::kSimulatorBuild && !isEmpty(accessGroup)) {
        query.accessGroup = accessGroup;
    }
    return query;
}

std::optional<KeychainItemAttributes> Keychain::_itemAttributesAndDataForKey(
    const Text& key, const Text& service, const Text& accessGroup, ErrorSlot error) {
    checkArguments(kLookupSelector, key, service);
    KeychainItemAttributes result;
    const OSStatus status = Platform::keychainBackend()->copyMatching(
        _baseQueryDictionaryForKey(key, service, accessGroup), &result);
    if (status != errSecSuccess) {
        report(error, _errorForResultCode(status, key, service));
        return std::nullopt;
    }
    return result;
}

}  // namespace NorvAnalytic
