#include <NorvAnalytic/KeychainBackend.h>

#include "keychain/FileKeychainBackend.h"
#include "keychain/SecretServiceKeychainBackend.h"

namespace NorvAnalytic {

std::shared_ptr<KeychainBackend> KeychainBackend::makeFileBackend(const Text& path) {
    return std::make_shared<FileKeychainBackend>(path ? std::filesystem::path(*path)
                                                      : FileKeychainBackend::defaultPath());
}

std::shared_ptr<KeychainBackend> KeychainBackend::makeSecretServiceBackend() {
    return std::make_shared<SecretServiceKeychainBackend>();
}

OSStatus KeychainBackend::writeTransaction(const std::function<OSStatus()>& body) { return body(); }

std::optional<std::chrono::milliseconds> KeychainBackend::identityRefreshInterval() const {
    return std::nullopt;
}

}  // namespace NorvAnalytic
