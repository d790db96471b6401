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
    OSStatus copyMatching(const KeychainQuery& query, KeychainItemAttributes* result) override;
    OSStatus add(const KeychainQuery& attributes) override;
    OSStatus update(const KeychainQuery& query, const KeychainQuery& changes) override;
    OSStatus remove(const KeychainQuery& query) override;

private:
    static bool matches(const KeychainQuery& query, const KeychainItemAttributes& item);

    mutable std::mutex mutex_;
    std::vector<KeychainItemAttributes> items_;
    std::optional<OSStatus> failure_;
    std::size_t copyMatchingCalls_ = 0;
};

}  // namespace NorvAnalytic::Testing
