#pragma once

#include <NorvAnalytic/KeychainBackend.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace NorvAnalytic::Testing {

// An in-memory keychain whose failures a test can script. Safe from any thread. It keeps one
// item per key and service: access groups, which no suite on it uses, are not told apart.
class FakeKeychainBackend final : public KeychainBackend {
public:
    // Every later call answers this status without touching the items (nullopt: normal).
    void failWith(std::optional<OSStatus> status);
    // How many copyMatching calls reached the backend so far.
    std::size_t copyMatchingCalls() const;

    OSStatus copyMatching(const KeychainQuery&, KeychainItemAttributes*) override;
    OSStatus add(const KeychainQuery&) override;
    OSStatus update(const KeychainQuery&, const KeychainQuery&) override;
    OSStatus remove(const KeychainQuery&) override;

private:
    mutable std::mutex mutex_;
    std::optional<OSStatus> failure_;
    std::size_t copyMatchingCalls_ = 0;
    std::map<std::pair<std::string, std::string>, KeychainItemAttributes> items_;
};

}  // namespace NorvAnalytic::Testing
