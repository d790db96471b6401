#include "support/FakeKeychainBackend.h"

#include <algorithm>

namespace NorvAnalytic::Testing {

namespace {

// Like the real keychains: a query without an access group matches the item of every group.
bool matches(const KeychainQuery& query, const KeychainItemAttributes& item) {
    return item.account == query.account && item.service == query.service &&
           (!query.accessGroup || query.accessGroup == item.accessGroup.value_or(""));
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
    if (failure_) {
        return *failure_;
    }
    const auto found = std::find_if(items_.begin(), items_.end(),
                                    [&](const auto& item) { return matches(query, item); });
    if (found == items_.end()) {
        return errSecItemNotFound;
    }
    if (result != nullptr) {
        *result = *found;
    }
    return errSecSuccess;
}

OSStatus FakeKeychainBackend::add(const KeychainQuery& attributes) {
    const std::lock_guard lock(mutex_);
    if (failure_) {
        return *failure_;
    }
    // An item without a group is kept under the empty one, which only an exact query finds.
    KeychainQuery exact = attributes;
    exact.accessGroup = attributes.accessGroup.value_or("");
    if (std::any_of(items_.begin(), items_.end(),
                    [&](const auto& item) { return matches(exact, item); })) {
        return errSecDuplicateItem;
    }
    const Text group = exact.accessGroup->empty() ? std::nullopt : exact.accessGroup;
    items_.push_back({attributes.account, attributes.service, group, attributes.accessible,
                      attributes.valueData.value_or(Data{})});
    return errSecSuccess;
}

OSStatus FakeKeychainBackend::update(const KeychainQuery& query, const KeychainQuery& changes) {
    const std::lock_guard lock(mutex_);
    if (failure_) {
        return *failure_;
    }
    OSStatus status = errSecItemNotFound;
    for (auto& item : items_) {
        if (matches(query, item)) {
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
    const auto removed =
        std::erase_if(items_, [&](const auto& item) { return matches(query, item); });
    return removed > 0 ? errSecSuccess : errSecItemNotFound;
}

}  // namespace NorvAnalytic::Testing
