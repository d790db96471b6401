#include "keychain/SecretServiceKeychainBackend.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <optional>
#include <thread>

#include "keychain/SecretServiceItems.h"
#include "keychain/SecretServiceLink.h"
#include "storage/DataDirectory.h"

namespace NorvAnalytic {

SecretServiceKeychainBackend::SecretServiceKeychainBackend(const std::string& schemaName,
                                                           const std::string& collectionAlias)
    : items_(std::make_unique<SecretServiceItems>(schemaName, collectionAlias)),
      lockPath_(DataDirectory::path() / (schemaName + ".lock")) {}

SecretServiceKeychainBackend::~SecretServiceKeychainBackend() = default;

// Each call's work runs on the link's thread, which may outlive a caller that stopped waiting:
// what it reads and writes is its own copy, handed back only when it answered in time.
OSStatus SecretServiceKeychainBackend::copyMatching(const KeychainQuery& query,
                                                    KeychainItemAttributes* result) {
    auto found = std::make_shared<KeychainItemAttributes>();
    const OSStatus status = SecretServiceLink::shared().run(
        [items = items_, query, found](SecretService* service, GCancellable* cancellable) {
            return items->copyMatching(service, cancellable, query, *found);
        });
    if (status == errSecSuccess && result != nullptr) {
        *result = std::move(*found);
    }
    return status;
}

OSStatus SecretServiceKeychainBackend::add(const KeychainQuery& attributes) {
    return SecretServiceLink::shared().run(
        [items = items_, attributes](SecretService* service, GCancellable* cancellable) {
            return items->add(service, cancellable, attributes);
        });
}

OSStatus SecretServiceKeychainBackend::update(const KeychainQuery& query,
                                              const KeychainQuery& changes) {
    return SecretServiceLink::shared().run(
        [items = items_, query, changes](SecretService* service, GCancellable* cancellable) {
            return items->update(service, cancellable, query, changes);
        });
}

OSStatus SecretServiceKeychainBackend::remove(const KeychainQuery& query) {
    return SecretServiceLink::shared().run(
        [items = items_, query](SecretService* service, GCancellable* cancellable) {
            return items->remove(service, cancellable, query);
        });
}

OSStatus SecretServiceKeychainBackend::writeTransaction(const std::function<OSStatus()>& body) {
    if (!DataDirectory::makePrivate(lockPath_.parent_path())) {
        return errSecInteractionNotAllowed;
    }
    const int descriptor =
        ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0) {
        return errSecInteractionNotAllowed;
    }
    // Closing the descriptor lets the lock go, however body ends.
    struct Closer {
        int descriptor;
        ~Closer() { ::close(descriptor); }
    } closer{descriptor};
    // A turn lasts a few D-Bus round trips; one held far longer belongs to a hung process.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() > giveUp) {
            return errSecInteractionNotAllowed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return body();
}

// Only while the daemon's signals cannot be had: another process's change is told otherwise.
std::optional<std::chrono::milliseconds> SecretServiceKeychainBackend::identityRefreshInterval()
    const {
    return std::chrono::seconds(5);
}

int SecretServiceKeychainBackend::changeDescriptor() {
    return SecretServiceLink::shared().watch().changeDescriptor();
}

bool SecretServiceKeychainBackend::takeChanges() {
    return SecretServiceLink::shared().watch().takeChanges();
}

}  // namespace NorvAnalytic
