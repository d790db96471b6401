#pragma once

#include <NorvAnalytic/ReachabilityService.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace NorvAnalytic::Testing {

// A reachability source whose answer the test sets; every address gets the same answer.
// Until told otherwise it reports a reachable route that is not WWAN (Wi-Fi). A target made
// by another service cannot be read here, as with a real service.
class FakeReachabilityService final : public ReachabilityService {
public:
    // The flags getFlags reports (nullopt: getFlags fails).
    void setFlags(std::optional<std::uint32_t> flags);
    // When true, createWithAddress returns null (no target could be made).
    void setCreateFails(bool fails);
    // How many getFlags calls reached the service so far.
    std::size_t getFlagsCalls();
    ReachabilityRef createWithAddress(const sockaddr* address) override;
    bool getFlags(ReachabilityRef target, std::uint32_t* flags) override;

private:
    std::atomic<std::optional<std::uint32_t>> flags_{kReachabilityFlagsReachable};
    std::atomic<bool> createFails_ = false;
    std::atomic<std::size_t> getFlagsCalls_ = 0;
};

}  // namespace NorvAnalytic::Testing
