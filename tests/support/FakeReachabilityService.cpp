#include "support/FakeReachabilityService.h"

namespace NorvAnalytic::Testing {

void FakeReachabilityService::setFlags(std::optional<std::uint32_t> flags) {
    std::lock_guard lock(mutex_);
    flags_ = flags;
}

void FakeReachabilityService::setCreateFails(bool fails) {
    std::lock_guard lock(mutex_);
    createFails_ = fails;
}

ReachabilityRef FakeReachabilityService::createWithAddress(const sockaddr*) {
    std::lock_guard lock(mutex_);
    return createFails_ ? nullptr : this;
}

bool FakeReachabilityService::getFlags(ReachabilityRef, std::uint32_t* flags) {
    std::lock_guard lock(mutex_);
    if (!flags_) {
        return false;
    }
    *flags = *flags_;
    return true;
}

}  // namespace NorvAnalytic::Testing
