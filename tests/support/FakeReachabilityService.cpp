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
    // One target stands for every address: the service itself.
    return createFails_ ? nullptr : this;
}

std::size_t FakeReachabilityService::getFlagsCalls() {
    std::lock_guard lock(mutex_);
    return getFlagsCalls_;
}

bool FakeReachabilityService::getFlags(ReachabilityRef target, std::uint32_t* flags) {
    std::lock_guard lock(mutex_);
    ++getFlagsCalls_;
    if (target != this || !flags_) {
        return false;
    }
    *flags = *flags_;
    return true;
}

}  // namespace NorvAnalytic::Testing
