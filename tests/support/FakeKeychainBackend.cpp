#include "support/FakeKeychainBackend.h"

namespace NorvAnalytic::Testing {

namespace {

std::pair<std::string, std::string> keyOf(const KeychainQuery& query) {
    return {query.account, query.service};
}

}  // namespace

void FakeKeychainBackend::failWith(std::optional<OSStatus> status) {
    const std::lock_guard lock(mutex_);
    failure_ = status;
}

std::size_t FakeKeychainBackend::copyMatchingCalls() const {
    const std::lock_guard lock(mutex_);
    return copyMatchingCalls_;
}

OSStatus FakeKeychainBackend::copyMatching(const KeychainQuery& query,
                                           KeychainItemAttributes* result) {
    const std::lock_guard lock(mutex_);
    ++copyMatchingCalls_;
    const auto found = items_.find(keyOf(query));
    if (failure_ || found == items_.end()) {
        return failure_.value_or(errSecItemNotFound);
    }
    if (result != nullptr) {
        *result = found->second;
    }
    return errSecSuccess;
}

OSStatus FakeKeychainBackend::add(const KeychainQuery& attributes) {
    const std::lock_guard lock(mutex_);
    if (failure_ || items_.contains(keyOf(attributes))) {
        return failure_.value_or(errSecDuplicateItem);
    }
    items_[keyOf(attributes)] = {attributes.account, attributes.service, attributes.accessGroup,
                                 attributes.accessible, attributes.valueData.value_or(Data{})};
    return errSecSuccess;
}

OSStatus FakeKeychainBackend::update(const KeychainQuery& query, const KeychainQuery& changes) {
    const std::lock_guard lock(mutex_);
    const auto found = items_.find(keyOf(query));
    if (failure_ || found == items_.end()) {
        return failure_.value_or(errSecItemNotFound);
    }
    found->second.valueData = changes.valueData.value_or(found->second.valueData);
    found->second.accessible = changes.accessible ? changes.accessible : found->second.accessible;
    return errSecSuccess;
}

OSStatus FakeKeychainBackend::remove(const KeychainQuery& query) {
    const std::lock_guard lock(mutex_);
    if (failure_) {
        return *failure_;
    }
    return items_.erase(keyOf(query)) > 0 ? errSecSuccess : errSecItemNotFound;
}

}  // namespace NorvAnalytic::Testing
