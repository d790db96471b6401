#pragma once

#include <NorvAnalytic/ReachabilityService.h>

#include <array>
#include <compare>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>

namespace NorvAnalytic {

// Reachability flags from the kernel's routing table, asked over rtnetlink at every read. The
// answer follows the network namespace of the calling thread.
class NetlinkReachabilityService final : public ReachabilityService {
public:
    // sysfsNetRoot is where interface attributes are read from; a test may point it elsewhere.
    explicit NetlinkReachabilityService(std::string sysfsNetRoot = "/sys/class/net");

    // One target per IPv4 or IPv6 address (the port is ignored); the same address always yields
    // the same target, so asking again and again never grows memory.
    ReachabilityRef createWithAddress(const sockaddr* address) override;
    // Reachable when the route to the target (to the all-zero address: the default route) leaves
    // through an interface that is up; ConnectionRequired when it has no carrier;
    // TransientConnection on a point-to-point link; IsWWAN on a WWAN device.
    bool getFlags(ReachabilityRef target, std::uint32_t* flags) override;

private:
    struct Target {
        std::uint8_t family = 0;
        std::array<std::uint8_t, 16> address{};

        auto operator<=>(const Target&) const = default;
    };

    bool isWwanInterface(const std::string& name) const;

    const std::string sysfsNetRoot_;
    std::mutex mutex_;
    std::set<Target> targets_;
};

}  // namespace NorvAnalytic
