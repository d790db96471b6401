#include "support/FakeKeychainBackend.h"

#include <algorithm>

namespace NorvAnalytic::Testing {

namespace {

// Like the real keychains: a query without an access group matches the item of every group.
bool matches(const KeychainQuery& query, const KeychainItemAttributes& item) {
    return item.account == query.account && item.service == query.service &&
           (!query.accessGroup || query.accessGroup == item.accessGroup);
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
    const auto found =
        std::ranges::find_if(items_, [&](auto& item) { return matches(query, item); });
    if (failure_ || found == items_.end()) {
        return failure_.value_or(errSecItemNotFound);
    }
    if (result != nullptr) {
        *result = *found;
    }
    return errSecSuccess;
}

OSStatus FakeKeychainBackend::add(const KeychainQuery& attributes) {
    const std::lock_guard lock(mutex_);
    if (failure_ ||
        std::ranges::any_of(items_, [&](auto& item) { return matches(attributes, item); })) {
        return failure_.value_or(errSecDuplicateItem);
    }
    items_.push_back({attributes.account, attributes.service, attributes.accessGroup,
                      attributes.accessible, attributes.valueData.value_or(Data{})});
    return errSecSuccess;
}

OSStatus FakeKeychainBackend::update(const KeychainQuery& query, const KeychainQuery& changes) {
    const std::lock_guard lock(mutex_);
    OSStatus status = failure_.value_or(errSecItemNotFound);
    for (auto& item : items_) {
        if (!failure_ && matches(query, item)) {
            item.valueData = changes.valueData.value_or(item.valueData);
            item.accessible = changes.accessible ? changes.accessible : item.accessible;
            status = errSecSuccess;
        }
    }
    return status;
}

OSStatus FakeKeychainBackend::remove(const KeychainQuery& query) {
    const std::lock_guard lock(mutex_);
    if (failure_) {
        return *failure_;
    }
    return std::erase_if(items_, [&](auto& item) { return matches(query, item); }) > 0
               ? errSecSuccess
               : errSecItemNotFound;
}

}  // namespace NorvAnalytic::Testing
