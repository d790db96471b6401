#include "support/FakeReachabilityService.h"

namespace NorvAnalytic::Testing {

void FakeReachabilityService::setFlags(std::optional<std::uint32_t> flags) { flags_ = flags; }

void FakeReachabilityService::setCreateFails(bool fails) { createFails_ = fails; }

std::size_t FakeReachabilityService::getFlagsCalls() { return getFlagsCalls_; }

// One target stands for every address: the service itself.
ReachabilityRef FakeReachabilityService::createWithAddress(const sockaddr*) {
    return createFails_ ? nullptr : this;
}

bool FakeReachabilityService::getFlags(ReachabilityRef target, std::uint32_t* flags) {
    ++getFlagsCalls_;
    const std::optional<std::uint32_t> answer = flags_;
    if (target != this || !answer) {
        return false;
    }
    *flags = *answer;
    return true;
}

}  // namespace NorvAnalytic::Testing
