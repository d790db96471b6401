#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/ReachabilityService.h>
#include <NorvAnalytic/Types.h>

#include <cstdint>
#include <memory>
#include <string>

struct sockaddr;

namespace NorvAnalytic {

// Whether the internet can be reached now, and over which kind of link. Made for one query.
class NORVANALYTIC_EXPORT Connection {
public:
    // A connection for the all-zero IPv4 address: is any route to the internet there?
    static std::shared_ptr<Connection> reachabilityForInternetConnection();
    // A connection for the address, or nullptr when no target can be made for it.
    static std::shared_ptr<Connection> reachabilityWithAddress(const sockaddr* address);

    explicit Connection(ReachabilityRef reachabilityRef);

    ConnectionStatus currentReachabilityStatus() const;
    bool isReachable() const;
    bool isReachableViaWiFi() const;
    bool isReachableWithFlags(std::uint32_t flags) const;

    bool reachableOnWWAN() const { return reachableOnWWAN_; }
    void setReachableOnWWAN(bool reachableOnWWAN) { reachableOnWWAN_ = reachableOnWWAN; }
    ReachabilityRef reachabilityRef() const { return reachabilityRef_; }
    // The label of the serial queue made with this connection (it is given no work).
    const std::string& reachabilitySerialQueue() const { return reachabilitySerialQueue_; }

private:
    bool reachableOnWWAN_ = true;
    ReachabilityRef reachabilityRef_;
    std::string reachabilitySerialQueue_;
};

}  // namespace NorvAnalytic
