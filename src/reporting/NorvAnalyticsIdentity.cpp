#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <array>
#include <atomic>
#include <charconv>
#include <mutex>

#include "keychain/KeychainItemCache.h"
#include "platform/Diagnostics.h"
#include "reporting/DeviceIdentity.h"

namespace NorvAnalytic {

namespace {

using State = KeychainItemCache::State;

// The UUID of a process whose store can neither give nor keep one: made once and kept for as
// long as that store is in use, so that all its events still carry one identity.
struct UnstoredIdentity {
    std::mutex mutex;
    std::weak_ptr<KeychainBackend> backend;
    std::string uuid;
    // Read on every event before the lock, so that a working store costs nothing here.
    std::atomic<bool> inUse{false};
};

UnstoredIdentity& unstored() {
    static auto* identity = new UnstoredIdentity();
    return *identity;
}

std::optional<std::string> unstoredUUID(const std::shared_ptr<KeychainBackend>& backend) {
    auto& identity = unstored();
    if (!identity.inUse.load(std::memory_order_acquire)) {
        return std::nullopt;
    }
    const std::lock_guard lock(identity.mutex);
    if (identity.backend.lock() != backend) {
        return std::nullopt;
    }
    return identity.uuid;
}

std::string keepUnstoredUUID(const std::shared_ptr<KeychainBackend>& backend) {
    auto& identity = unstored();
    std::string uuid;
    {
        const std::lock_guard lock(identity.mutex);
        if (identity.inUse && identity.backend.lock() == backend) {
            return identity.uuid;
        }
        identity.backend = backend;
        identity.uuid = uuid = DeviceIdentity::newUUID();
        identity.inUse.store(true, std::memory_order_release);
    }
    Diagnostics::report(DiagnosticLevel::Error,
                        "The keychain store can neither give nor keep the device UUID: this "
                        "process uses one kept in memory until it ends.");
    return uuid;
}

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
    const std::shared_ptr<KeychainBackend> backend = Platform::keychainBackend();
    if (auto kept = unstoredUUID(backend)) {
        return *kept;
    }
    auto& cache = KeychainItemCache::shared();
    const std::string& key = *DeviceIdentity::deviceUUIDKey();
    const std::string& service = *DeviceIdentity::service();
    KeychainItemCache::Item stored = cache.item(key, service);
    if (stored.state == State::Missing || stored.state == State::Unreadable) {
        // Of callers racing here, in threads or processes, all end with the one that won.
        stored = cache.insertIfAbsent(key, service, DeviceIdentity::newUUID());
    }
    if (stored.state == State::Stored) {
        return *stored.value;
    }
    return keepUnstoredUUID(backend);
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

}  // namespace NorvAnalytic
