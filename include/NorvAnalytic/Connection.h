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

    // A connection that reads the target's flags from the platform's reachability service.
    explicit Connection(ReachabilityRef reachabilityRef);

    // None, Cellular (reachable, not over Wi-Fi) or WiFi, from the flags as they are now.
    ConnectionStatus currentReachabilityStatus() const;
    // Whether the target can be reached now; false when its flags cannot be read.
    bool isReachable() const;
    // Whether the target can be reached now over a link that is not a WWAN one.
    bool isReachableViaWiFi() const;
    // Whether these flags mean reachable, honouring reachableOnWWAN.
    bool isReachableWithFlags(std::uint32_t flags) const;

    bool reachableOnWWAN() const { return reachableOnWWAN_; }
    void setReachableOnWWAN(bool reachableOnWWAN) { reachableOnWWAN_ = reachableOnWWAN; }
    ReachabilityRef reachabilityRef() const { return reachabilityRef_; }
    // The label of the serial queue made with this connection (it is given no work).
    const std::string& reachabilitySerialQueue() const { return reachabilitySerialQueue_; }

private:
    Connection(ReachabilityRef reachabilityRef, std::shared_ptr<ReachabilityService> service);

    bool readFlags(std::uint32_t* flags) const;

    // The service that made the target: targets belong to it and are meaningless to another.
    std::shared_ptr<ReachabilityService> service_;
    bool reachableOnWWAN_ = true;
    ReachabilityRef reachabilityRef_;
    std::string reachabilitySerialQueue_;
};

}  // namespace NorvAnalytic
