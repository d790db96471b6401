#pragma once

#include <NorvAnalytic/KeychainBackend.h>

#include <filesystem>
#include <memory>

#include "keychain/FileKeychainBackend.h"

namespace NorvAnalytic::Testing {

// A file keychain in a fresh temporary directory, installed as the SDK's keychain backend for
// the helper's lifetime. The previous backend comes back and the directory goes away after.
class ScratchKeychain {
public:
    ScratchKeychain();
    ~ScratchKeychain();
    ScratchKeychain(const ScratchKeychain&) = delete;
    ScratchKeychain& operator=(const ScratchKeychain&) = delete;

    const std::filesystem::path& directory() const { return directory_; }
    // directory()/keychain.sqlite
    std::filesystem::path path() const;
    const std::shared_ptr<FileKeychainBackend>& backend() const { return backend_; }

private:
    std::filesystem::path directory_;
    std::shared_ptr<FileKeychainBackend> backend_;
    std::shared_ptr<KeychainBackend> previous_;
};

}  // namespace NorvAnalytic::Testing
