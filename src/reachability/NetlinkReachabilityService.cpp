#include "reachability/NetlinkReachabilityService.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>

namespace NorvAnalytic {

namespace {

// Large enough for one link's attributes and for a chunk of a route dump.
constexpr std::size_t kReceiveBufferSize = 32768;
constexpr std::size_t kRequestBufferSize = 256;

struct SocketCloser {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using RouteSocket = std::unique_ptr<mnl_socket, SocketCloser>;

// A fresh socket per query: it belongs to the calling thread's network namespace, and nothing
// is shared between threads.
RouteSocket openRouteSocket() {
    RouteSocket socket(mnl_socket_open(NETLINK_ROUTE));
    if (socket && mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        socket.reset();
    }
    return socket;
}

// One request and its answers: each reply message goes to onMessage; an error the kernel
// answers with (no route, no such link) lands in kernelError.
struct Exchange {
    std::function<void(const nlmsghdr*)> onMessage;
    int kernelError = 0;
};

int deliverMessage(const nlmsghdr* message, void* data) {
    static_cast<Exchange*>(data)->onMessage(message);
    return MNL_CB_OK;
}

int recordKernelError(const nlmsghdr* message, void* data) {
    if (mnl_nlmsg_get_payload_len(message) < sizeof(nlmsgerr)) {
        errno = EBADMSG;
        return MNL_CB_ERROR;
    }
    const auto* error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message));
    static_cast<Exchange*>(data)->kernelError = -error->error;
    return MNL_CB_STOP;
}

int finishDump(const nlmsghdr*, void*) { return MNL_CB_STOP; }

// Sends the request and reads until the kernel's acknowledgement or the end of the dump.
// False when the kernel could not be talked to at all.
bool converse(mnl_socket* socket, nlmsghdr* request, Exchange& exchange) {
    if (mnl_socket_sendto(socket, request, request->nlmsg_len) < 0) {
        return false;
    }
    mnl_cb_t controlCallbacks[NLMSG_MIN_TYPE] = {};
    controlCallbacks[NLMSG_ERROR] = recordKernelError;
    controlCallbacks[NLMSG_DONE] = finishDump;
    const unsigned int portId = mnl_socket_get_portid(socket);
    alignas(nlmsghdr) char buffer[kReceiveBufferSize];
    for (;;) {
        const ssize_t received = mnl_socket_recvfrom(socket, buffer, sizeof(buffer));
        if (received < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        const int result = mnl_cb_run2(buffer, static_cast<std::size_t>(received),
                                       request->nlmsg_seq, portId, deliverMessage, &exchange,
                                       controlCallbacks, NLMSG_MIN_TYPE);
        if (result == MNL_CB_ERROR) {
            return false;
        }
        if (result == MNL_CB_STOP) {
            return true;
        }
    }
}

nlmsghdr* putRequestHeader(char* buffer, std::uint16_t type, std::uint16_t flags) {
    static std::atomic<std::uint32_t> nextSequence{1};
    nlmsghdr* request = mnl_nlmsg_put_header(buffer);
    request->nlmsg_type = type;
    request->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    request->nlmsg_seq = nextSequence.fetch_add(1, std::memory_order_relaxed);
    return request;
}

std::optional<std::uint32_t> u32Attribute(const nlattr* attribute) {
    if (mnl_attr_validate(attribute, MNL_TYPE_U32) < 0) {
        return std::nullopt;
    }
    return mnl_attr_get_u32(attribute);
}

// The first nexthop of a multipath route that is not dead; 0 when there is none.
std::uint32_t firstLiveNexthop(const nlattr* multipath) {
    const auto* cursor = static_cast<const char*>(mnl_attr_get_payload(multipath));
    std::size_t remaining = mnl_attr_get_payload_len(multipath);
    while (remaining >= sizeof(rtnexthop)) {
        rtnexthop nexthop;
        std::memcpy(&nexthop, cursor, sizeof(nexthop));
        if (nexthop.rtnh_len < sizeof(rtnexthop) || nexthop.rtnh_len > remaining) {
            break;
        }
        if ((nexthop.rtnh_flags & RTNH_F_DEAD) == 0 && nexthop.rtnh_ifindex > 0) {
            return static_cast<std::uint32_t>(nexthop.rtnh_ifindex);
        }
        const std::size_t step = std::min<std::size_t>(RTNH_ALIGN(nexthop.rtnh_len), remaining);
        cursor += step;
        remaining -= step;
    }
    return 0;
}

struct Route {
    std::uint32_t table = 0;
    std::uint32_t priority = 0;
    std::uint32_t outputInterface = 0;
};

Route readRoute(const nlmsghdr* message) {
    const auto* header = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(message));
    Route route;
    route.table = header->rtm_table;
    mnl_attr_parse(
        message, sizeof(rtmsg),
        [](const nlattr* attribute, void* data) {
            auto& route = *static_cast<Route*>(data);
            switch (mnl_attr_get_type(attribute)) {
                case RTA_TABLE:
                    route.table = u32Attribute(attribute).value_or(route.table);
                    break;
                case RTA_PRIORITY:
                    route.priority = u32Attribute(attribute).value_or(0);
                    break;
                case RTA_OIF:
                    route.outputInterface = u32Attribute(attribute).value_or(0);
                    break;
                case RTA_MULTIPATH:
                    if (route.outputInterface == 0) {
                        route.outputInterface = firstLiveNexthop(attribute);
                    }
                    break;
                default:
                    break;
            }
            return MNL_CB_OK;
        },
        &route);
    return route;
}

// The interface of the default route an ordinary packet would take (main table, lowest
// metric); 0 when there is none.
std::optional<std::uint32_t> defaultRouteInterface(mnl_socket* socket, std::uint8_t family) {
    alignas(nlmsghdr) char buffer[kRequestBufferSize];
    nlmsghdr* request = putRequestHeader(buffer, RTM_GETROUTE, NLM_F_DUMP);
    auto* header = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    header->rtm_family = family;

    std::optional<Route> best;
    Exchange dump;
    dump.onMessage = [&](const nlmsghdr* message) {
        if (message->nlmsg_type != RTM_NEWROUTE ||
            mnl_nlmsg_get_payload_len(message) < sizeof(rtmsg)) {
            return;
        }
        const auto* found = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(message));
        if (found->rtm_family != family || found->rtm_dst_len != 0 ||
            found->rtm_type != RTN_UNICAST || (found->rtm_flags & RTNH_F_DEAD) != 0) {
            return;
        }
        const Route route = readRoute(message);
        if (route.table != RT_TABLE_MAIN || route.outputInterface == 0) {
            return;
        }
        if (!best || route.priority < best->priority) {
            best = route;
        }
    };
    if (!converse(socket, request, dump)) {
        return std::nullopt;
    }
    return best ? best->outputInterface : 0;
}

// The interface the kernel would send a packet to the address through; 0 when it has no route.
std::optional<std::uint32_t> routeInterface(mnl_socket* socket, std::uint8_t family,
                                            const std::uint8_t* address,
                                            std::size_t addressLength) {
    alignas(nlmsghdr) char buffer[kRequestBufferSize];
    nlmsghdr* request = putRequestHeader(buffer, RTM_GETROUTE, NLM_F_ACK);
    auto* header = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    header->rtm_family = family;
    header->rtm_dst_len = static_cast<std::uint8_t>(addressLength * 8);
    mnl_attr_put(request, RTA_DST, addressLength, address);

    std::uint32_t outputInterface = 0;
    Exchange lookup;
    lookup.onMessage = [&](const nlmsghdr* message) {
        if (message->nlmsg_type == RTM_NEWROUTE &&
            mnl_nlmsg_get_payload_len(message) >= sizeof(rtmsg)) {
            outputInterface = readRoute(message).outputInterface;
        }
    };
    if (!converse(socket, request, lookup)) {
        return std::nullopt;
    }
    // An unreachable, prohibited or missing route is answered with an error: no route.
    return lookup.kernelError == 0 ? outputInterface : 0;
}

struct Link {
    bool found = false;
    unsigned int flags = 0;
    std::uint8_t operationalState = IF_OPER_UNKNOWN;
    std::string name;
};

std::optional<Link> readLink(mnl_socket* socket, std::uint32_t index) {
    alignas(nlmsghdr) char buffer[kRequestBufferSize];
    nlmsghdr* request = putRequestHeader(buffer, RTM_GETLINK, NLM_F_ACK);
    auto* header = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
    header->ifi_family = AF_UNSPEC;
    header->ifi_index = static_cast<int>(index);
    mnl_attr_put_u32(request, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);

    Link link;
    Exchange lookup;
    lookup.onMessage = [&](const nlmsghdr* message) {
        if (message->nlmsg_type != RTM_NEWLINK ||
            mnl_nlmsg_get_payload_len(message) < sizeof(ifinfomsg)) {
            return;
        }
        link.found = true;
        link.flags = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(message))->ifi_flags;
        mnl_attr_parse(
            message, sizeof(ifinfomsg),
            [](const nlattr* attribute, void* data) {
                auto& link = *static_cast<Link*>(data);
                if (mnl_attr_get_type(attribute) == IFLA_IFNAME &&
                    mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0) {
                    link.name = mnl_attr_get_str(attribute);
                } else if (mnl_attr_get_type(attribute) == IFLA_OPERSTATE &&
                           mnl_attr_validate(attribute, MNL_TYPE_U8) >= 0) {
                    link.operationalState = mnl_attr_get_u8(attribute);
                }
                return MNL_CB_OK;
            },
            &link);
    };
    if (!converse(socket, request, lookup)) {
        return std::nullopt;
    }
    return link;
}

bool hasCarrier(const Link& link) {
    if ((link.flags & IFF_LOWER_UP) == 0) {
        return false;
    }
    switch (link.operationalState) {
        case IF_OPER_NOTPRESENT:
        case IF_OPER_DOWN:
        case IF_OPER_LOWERLAYERDOWN:
        case IF_OPER_DORMANT:
            return false;
        default:
            return true;
    }
}

std::size_t addressLength(std::uint8_t family) {
    return family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
}

}  // namespace

NetlinkReachabilityService::NetlinkReachabilityService(std::string sysfsNetRoot)
    : sysfsNetRoot_(std::move(sysfsNetRoot)) {}

ReachabilityRef NetlinkReachabilityService::createWithAddress(const sockaddr* address) {
    if (address == nullptr) {
        return nullptr;
    }
    Target target;
    if (address->sa_family == AF_INET) {
        sockaddr_in ipv4;
        std::memcpy(&ipv4, address, sizeof(ipv4));
        target.family = AF_INET;
        std::memcpy(target.address.data(), &ipv4.sin_addr, sizeof(ipv4.sin_addr));
    } else if (address->sa_family == AF_INET6) {
        sockaddr_in6 ipv6;
        std::memcpy(&ipv6, address, sizeof(ipv6));
        target.family = AF_INET6;
        std::memcpy(target.address.data(), &ipv6.sin6_addr, sizeof(ipv6.sin6_addr));
    } else {
        return nullptr;
    }
    std::lock_guard lock(mutex_);
    return &*targets_.insert(target).first;
}

bool NetlinkReachabilityService::getFlags(ReachabilityRef target, std::uint32_t* flags) {
    if (target == nullptr || flags == nullptr) {
        return false;
    }
    const auto& wanted = *static_cast<const Target*>(target);
    RouteSocket socket = openRouteSocket();
    if (!socket) {
        return false;
    }
    const std::size_t length = addressLength(wanted.family);
    const bool anyRoute = std::all_of(wanted.address.begin(), wanted.address.begin() + length,
                                      [](std::uint8_t byte) { return byte == 0; });
    // The kernel routes a lookup of the all-zero address to itself, so "any route to the
    // internet" is answered from the default route instead.
    const std::optional<std::uint32_t> interfaceIndex =
        anyRoute ? defaultRouteInterface(socket.get(), wanted.family)
                 : routeInterface(socket.get(), wanted.family, wanted.address.data(), length);
    if (!interfaceIndex) {
        return false;
    }
    *flags = 0;
    if (*interfaceIndex == 0) {
        return true;
    }
    const std::optional<Link> link = readLink(socket.get(), *interfaceIndex);
    if (!link) {
        return false;
    }
    if (!link->found || (link->flags & IFF_UP) == 0) {
        return true;
    }
    *flags |= kReachabilityFlagsReachable;
    if (!hasCarrier(*link)) {
        *flags |= kReachabilityFlagsConnectionRequired;
    }
    if ((link->flags & IFF_POINTOPOINT) != 0) {
        *flags |= kReachabilityFlagsTransientConnection;
    }
    if (isWwanInterface(link->name)) {
        *flags |= kReachabilityFlagsIsWWAN;
    }
    return true;
}

bool NetlinkReachabilityService::isWwanInterface(const std::string& name) const {
    if (name.empty()) {
        return false;
    }
    std::ifstream uevent(sysfsNetRoot_ + "/" + name + "/uevent");
    std::string line;
    while (std::getline(uevent, line)) {
        if (line == "DEVTYPE=wwan") {
            return true;
        }
    }
    return false;
}

}  // namespace NorvAnalytic
