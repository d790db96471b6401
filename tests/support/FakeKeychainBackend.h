#pragma once

#include <NorvAnalytic/KeychainBackend.h>

#include <atomic>
#include <cstddef>
#include <map>
#include <mutex>

namespace NorvAnalytic::Testing {

// An in-memory keychain whose failures a test can script. Safe from any thread. It keeps one
// item per key and service: access groups, which no suite on it uses, are not told apart.
class FakeKeychainBackend final : public KeychainBackend {
public:
    // Every later call answers this status without touching the items (nullopt: normal).
    void failWith(std::optional<OSStatus> status) {
        const std::lock_guard lock(mutex_);
        failure_ = status;
    }

    // How many copyMatching calls reached the backend so far.
    std::size_t copyMatchingCalls() const { return copyMatchingCalls_; }

    OSStatus copyMatching(const KeychainQuery& query, KeychainItemAttributes* result) override {
        const std::lock_guard lock(mutex_);
        ++copyMatchingCalls_;
        const auto found = items_.find({query.account, query.service});
        if (!failure_ && found != items_.end() && result != nullptr) {
            *result = found->second;
        }
        return status(found != items_.end(), errSecItemNotFound);
    }

    OSStatus add(const KeychainQuery& item) override {
        const std::lock_guard lock(mutex_);
        const bool added =
            !failure_ &&
            items_
                .try_emplace({item.account, item.service}, item.account, item.service,
                             item.accessGroup, item.accessible, item.valueData.value_or(Data{}))
                .second;
        return status(added, errSecDuplicateItem);
    }

    OSStatus update(const KeychainQuery& query, const KeychainQuery& changes) override {
        const std::lock_guard lock(mutex_);
        const auto found = items_.find({query.account, query.service});
        if (!failure_ && found != items_.end()) {
            found->second.valueData = changes.valueData.value_or(found->second.valueData);
            found->second.accessible =
                changes.accessible ? changes.accessible : found->second.accessible;
        }
        return status(found != items_.end(), errSecItemNotFound);
    }

    OSStatus remove(const KeychainQuery& query) override {
        const std::lock_guard lock(mutex_);
        return status(!failure_ && items_.erase({query.account, query.service}) > 0,
                      errSecItemNotFound);
    }

private:
    // A scripted failure wins over what the call itself would answer.
    OSStatus status(bool succeeded, OSStatus otherwise) const {
        return failure_.value_or(succeeded ? errSecSuccess : otherwise);
    }

    mutable std::mutex mutex_;
    std::optional<OSStatus> failure_;
    std::atomic<std::size_t> copyMatchingCalls_ = 0;
    std::map<std::pair<std::string, std::string>, KeychainItemAttributes> items_;
};

}  // namespace NorvAnalytic::Testing
