#include "support/ScratchKeychain.h"

#include <NorvAnalytic/Platform.h>
#include <stdlib.h>

#include <stdexcept>
#include <string>

namespace NorvAnalytic::Testing {

namespace {

std::filesystem::path makeTemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "norv-keychain-XXXXXX");
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a scratch keychain directory");
    }
    return pattern;
}

}  // namespace

ScratchKeychain::ScratchKeychain()
    : directory_(makeTemporaryDirectory()),
      backend_(std::make_shared<FileKeychainBackend>(path())),
      previous_(Platform::keychainBackend()) {
    Platform::setKeychainBackend(backend_);
}

ScratchKeychain::~ScratchKeychain() {
    Platform::setKeychainBackend(previous_);
    backend_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::filesystem::path ScratchKeychain::path() const { return directory_ / "keychain.sqlite"; }

}  // namespace NorvAnalytic::Testing
