#include <NorvAnalytic/Connection.h>
#include <NorvAnalytic/Platform.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include "BuildConfig.h"

namespace NorvAnalytic {

std::shared_ptr<Connection> Connection::reachabilityForInternetConnection() {
    // Asking about 0.0.0.0 asks whether any route to the internet exists.
    sockaddr_in zeroAddress{};
    zeroAddress.sin_family = AF_INET;
    return reachabilityWithAddress(reinterpret_cast<const sockaddr*>(&zeroAddress));
}

std::shared_ptr<Connection> Connection::reachabilityWithAddress(const sockaddr* address) {
    std::shared_ptr<ReachabilityService> service = Platform::reachabilityService();
    if (!service) {
        return nullptr;
    }
    ReachabilityRef target = service->createWithAddress(address);
    if (target == nullptr) {
        return nullptr;
    }
    return std::shared_ptr<Connection>(new Connection(target, std::move(service)));
}

Connection::Connection(ReachabilityRef reachabilityRef)
    : Connection(reachabilityRef, Platform::reachabilityService()) {}

Connection::Connection(ReachabilityRef reachabilityRef,
                       std::shared_ptr<ReachabilityService> service)
    : service_(std::move(service)),
      reachabilityRef_(reachabilityRef),
      reachabilitySerialQueue_(std::string(BuildConfig::kSdkBundleIdentifier) +
                               ".Connection.reachabilitySerialQueue") {}

bool Connection::readFlags(std::uint32_t* flags) const {
    return service_ && reachabilityRef_ != nullptr && service_->getFlags(reachabilityRef_, flags);
}

ConnectionStatus Connection::currentReachabilityStatus() const {
    if (!isReachable()) {
        return ConnectionStatusNone;
    }
    // The second test reads the flags again: a route lost in between still answers Cellular.
    return isReachableViaWiFi() ? ConnectionStatusWiFi : ConnectionStatusCellular;
}

bool Connection::isReachable() const {
    std::uint32_t flags = 0;
    return readFlags(&flags) && isReachableWithFlags(flags);
}

bool Connection::isReachableViaWiFi() const {
    std::uint32_t flags = 0;
    return readFlags(&flags) && (flags & kReachabilityFlagsReachable) != 0 &&
           (flags & kReachabilityFlagsIsWWAN) == 0;
}

bool Connection::isReachableWithFlags(std::uint32_t flags) const {
    bool reachable = true;
    if ((flags & kReachabilityFlagsReachable) == 0) {
        reachable = false;
    }
    // Only a link that is both transient and still to be set up counts as unreachable; a
    // connection-required route alone is still reachable.
    constexpr std::uint32_t transientAndRequired =
        kReachabilityFlagsConnectionRequired | kReachabilityFlagsTransientConnection;
    if ((flags & transientAndRequired) == transientAndRequired) {
        reachable = false;
    }
    if ((flags & kReachabilityFlagsIsWWAN) != 0 && !reachableOnWWAN_) {
        reachable = false;
    }
    return reachable;
}

}  // namespace NorvAnalytic
