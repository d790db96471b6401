#pragma once

#include <NorvAnalytic/Export.h>

#include <cstdint>

struct sockaddr;

namespace NorvAnalytic {

// Reachability flag bits, with the values the SDK's rules are written against.
inline constexpr std::uint32_t kReachabilityFlagsTransientConnection = 0x1;
inline constexpr std::uint32_t kReachabilityFlagsReachable = 0x2;
inline constexpr std::uint32_t kReachabilityFlagsConnectionRequired = 0x4;
inline constexpr std::uint32_t kReachabilityFlagsIsWWAN = 0x40000;

// An opaque target for one address, owned by the service that made it.
using ReachabilityRef = const void*;

// Where reachability flags come from. Targets live as long as the service.
class NORVANALYTIC_EXPORT ReachabilityService {
public:
    virtual ~ReachabilityService() = default;
    // A target for the address, or nullptr when none can be made.
    virtual ReachabilityRef createWithAddress(const sockaddr* address) = 0;
    // Stores the target's current flags; false when they cannot be determined.
    virtual bool getFlags(ReachabilityRef target, std::uint32_t* flags) = 0;
};

}  // namespace NorvAnalytic
