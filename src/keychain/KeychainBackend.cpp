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

}  // namespace NorvAnalytic
