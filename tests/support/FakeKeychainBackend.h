#pragma once

#include <NorvAnalytic/KeychainBackend.h>

#include <cstddef>
#include <mutex>
#include <optional>
#include <vector>

namespace NorvAnalytic::Testing {

// An in-memory keychain whose failures a test can script. Safe from any thread.
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
    // In the order added, so that a query matching several items finds the oldest first.
    std::vector<KeychainItemAttributes> items_;
};

}  // namespace NorvAnalytic::Testing
