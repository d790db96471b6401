#pragma once

#include <NorvAnalytic/KeychainBackend.h>

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
    std::size_t copyMatchingCalls() const {
        const std::lock_guard lock(mutex_);
        return copyMatchingCalls_;
    }

    OSStatus copyMatching(const KeychainQuery& query, KeychainItemAttributes* result) override {
        const std::lock_guard lock(mutex_);
        ++copyMatchingCalls_;
        const auto found = items_.find({query.account, query.service});
        if (failure_ || found == items_.end()) {
            return failure_.value_or(errSecItemNotFound);
        }
        if (result != nullptr) {
            *result = found->second;
        }
        return errSecSuccess;
    }

    OSStatus add(const KeychainQuery& attributes) override {
        const std::lock_guard lock(mutex_);
        if (failure_ || items_.contains({attributes.account, attributes.service})) {
            return failure_.value_or(errSecDuplicateItem);
        }
        items_[{attributes.account, attributes.service}] = {
            attributes.account, attributes.service, attributes.accessGroup, attributes.accessible,
            attributes.valueData.value_or(Data{})};
        return errSecSuccess;
    }

    OSStatus update(const KeychainQuery& query, const KeychainQuery& changes) override {
        const std::lock_guard lock(mutex_);
        const auto found = items_.find({query.account, query.service});
        if (failure_ || found == items_.end()) {
            return failure_.value_or(errSecItemNotFound);
        }
        found->second.valueData = changes.valueData.value_or(found->second.valueData);
        found->second.accessible =
            changes.accessible ? changes.accessible : found->second.accessible;
        return errSecSuccess;
    }

    OSStatus remove(const KeychainQuery& query) override {
        const std::lock_guard lock(mutex_);
        if (failure_) {
            return *failure_;
        }
        return items_.erase({query.account, query.service}) > 0 ? errSecSuccess
                                                                : errSecItemNotFound;
    }

private:
    mutable std::mutex mutex_;
    std::optional<OSStatus> failure_;
    std::size_t copyMatchingCalls_ = 0;
    std::map<std::pair<std::string, std::string>, KeychainItemAttributes> items_;
};

}  // namespace NorvAnalytic::Testing
