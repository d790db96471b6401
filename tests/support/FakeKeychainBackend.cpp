#include "support/FakeKeychainBackend.h"

#include <algorithm>

namespace NorvAnalytic::Testing {

void FakeKeychainBackend::failWith(std::optional<OSStatus> status) {
    std::lock_guard lock(mutex_);
    failure_ = status;
}

std::size_t FakeKeychainBackend::copyMatchingCalls() const {
    std::lock_guard lock(mutex_);
    return copyMatchingCalls_;
}

bool FakeKeychainBackend::matches(const KeychainQuery& query, const KeychainItemAttributes& item) {
    // A query without an access group matches items of every group.
    return query.account == item.account && query.service == item.service &&
           (!query.accessGroup || query.accessGroup == item.accessGroup);
}

OSStatus FakeKeychainBackend::copyMatching(const KeychainQuery& query,
                                           KeychainItemAttributes* result) {
    std::lock_guard lock(mutex_);
    ++copyMatchingCalls_;
    if (failure_) {
        return *failure_;
    }
    for (const KeychainItemAttributes& item : items_) {
        if (matches(query, item)) {
            if (result != nullptr) {
                *result = item;
            }
            return errSecSuccess;
        }
    }
    return errSecItemNotFound;
}

OSStatus FakeKeychainBackend::add(const KeychainQuery& attributes) {
    std::lock_guard lock(mutex_);
    if (failure_) {
        return *failure_;
    }
    KeychainItemAttributes item{attributes.account, attributes.service, attributes.accessGroup,
                                attributes.accessible, attributes.valueData.value_or(Data{})};
    for (const KeychainItemAttributes& existing : items_) {
        if (existing.account == item.account && existing.service == item.service &&
            existing.accessGroup == item.accessGroup) {
            return errSecDuplicateItem;
        }
    }
    items_.push_back(std::move(item));
    return errSecSuccess;
}

OSStatus FakeKeychainBackend::update(const KeychainQuery& query, const KeychainQuery& changes) {
    std::lock_guard lock(mutex_);
    if (failure_) {
        return *failure_;
    }
    bool found = false;
    for (KeychainItemAttributes& item : items_) {
        if (matches(query, item)) {
            found = true;
            if (changes.valueData) {
                item.valueData = *changes.valueData;
            }
            if (changes.accessible) {
                item.accessible = changes.accessible;
            }
        }
    }
    return found ? errSecSuccess : errSecItemNotFound;
}

OSStatus FakeKeychainBackend::remove(const KeychainQuery& query) {
    std::lock_guard lock(mutex_);
    if (failure_) {
        return *failure_;
    }
    const auto removed = std::erase_if(
        items_, [&](const KeychainItemAttributes& item) { return matches(query, item); });
    return removed > 0 ? errSecSuccess : errSecItemNotFound;
}

}  // namespace NorvAnalytic::Testing
