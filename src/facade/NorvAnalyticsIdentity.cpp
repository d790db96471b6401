#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>

#include "events/DeviceIdentity.h"
#include "facade/IdentityErasure.h"
#include "keychain/FileKeychainBackend.h"
#include "keychain/KeychainItemCache.h"
#include "platform/Diagnostics.h"

namespace NorvAnalytic {

namespace {

using State = KeychainItemCache::State;

std::string statusText(const std::optional<Error>& error) {
    if (!error) {
        return "no error";
    }
    std::array<char, 24> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), error->code).ptr;
    return "status " + std::string(digits.data(), end);
}

}  // namespace

// Making sure a UUID exists is reading it: a missing or unreadable one is made and stored.
void NorvAnalytics::setUUID() { getNorvAnalyticUUID(); }

std::string NorvAnalytics::getNorvAnalyticUUID() {
    auto& cache = KeychainItemCache::shared();
    const std::string& key = *DeviceIdentity::deviceUUIDKey();
    const std::string& service = *DeviceIdentity::service();
    // A caller (initWithKey, an event's hand-over) waits this long in all for a store that is
    // held or hung; the read and the first write then finish on the keychain's own thread.
    const auto deadline = std::chrono::steady_clock::now() + KeychainItemCache::kStoreWait;
    KeychainItemCache::Item stored = cache.item(key, service);
    if (stored.state != State::Stored && stored.state != State::Pending) {
        // Of callers racing here, in threads or processes, all end with the one stored first.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        stored = cache.insertIfAbsent(key, service, DeviceIdentity::newUUID(),
                                      std::max(left, std::chrono::milliseconds(0)));
    }
    return stored.value.value_or(std::string());
}

void NorvAnalytics::saveStoreUserID(const Text& userId) {
    const KeychainItemCache::Item stored =
        KeychainItemCache::shared().item(*DeviceIdentity::userIdKey(), *DeviceIdentity::service());
    if (stored.state == State::Stored && userId && *stored.value == *userId) {
        return;
    }
    // A store that cannot hold other processes off may lose a race between a save's lookup
    // and its write; a second attempt then sees what the other writer left.
    std::optional<Error> error;
    for (int attempt = 0; attempt < 2; ++attempt) {
        error.reset();
        // Saving nil deletes the stored id; when there was none, that is no failure.
        if (Keychain::saveItem(userId, DeviceIdentity::userIdKey(), DeviceIdentity::service(),
                               &error) ||
            (!userId && error && error->code == errSecItemNotFound)) {
            return;
        }
        if (!error || (error->code != errSecDuplicateItem && error->code != errSecItemNotFound)) {
            break;
        }
    }
    Diagnostics::report(
        DiagnosticLevel::Error,
        "The store user id could not be saved in the keychain (" + statusText(error) + ").");
}

Text NorvAnalytics::getDeviceModel() {
    return DeviceIdentity::modelName(Platform::device()->machineIdentifier());
}

void eraseDeviceIdentity() noexcept {
    try {
        // Through Keychain, so that this process's cache drops both at once; other processes
        // see them gone at their next re-read of the store.
        for (const Text* key : {&DeviceIdentity::deviceUUIDKey(), &DeviceIdentity::userIdKey()}) {
            std::optional<Error> error;
            if (!Keychain::deleteItemForKey(*key, DeviceIdentity::service(), &error) &&
                !(error && error->code == errSecItemNotFound)) {
                Diagnostics::report(DiagnosticLevel::Error,
                                    "The device identity could not be erased from the keychain (" +
                                        statusText(error) + ").");
            }
        }
        const auto file =
            std::dynamic_pointer_cast<FileKeychainBackend>(Platform::keychainBackend());
        if (file && !file->scrub()) {
            Diagnostics::report(DiagnosticLevel::Error,
                                "The keychain file could not be cleared of the erased device "
                                "identity; its bytes may remain on disk.");
        }
    } catch (...) {
        // Out of memory, or a host's store that throws: the erasure is not complete.
        try {
            Diagnostics::report(DiagnosticLevel::Error, "The device identity could not be erased.");
        } catch (...) {
        }
    }
}

}  // namespace NorvAnalytic
