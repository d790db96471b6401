#include <NorvAnalytic/Connection.h>
#include <NorvAnalytic/Platform.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>
#include <vector>

#include "reachability/NetlinkReachabilityService.h"
#include "support/NetworkNamespace.h"

namespace NorvAnalytic {
namespace {

using Testing::NetworkNamespace;

constexpr std::uint32_t R = kReachabilityFlagsReachable;
constexpr std::uint32_t Required = kReachabilityFlagsConnectionRequired;

ReachabilityRef targetFor(ReachabilityService& service, const std::string& text, int port = 0) {
    sockaddr_in6 ipv6{AF_INET6, htons(static_cast<std::uint16_t>(port)), 0, {}, 0};
    sockaddr_in ipv4{AF_INET, ipv6.sin6_port, {}, {}};
    if (inet_pton(AF_INET, text.c_str(), &ipv4.sin_addr) == 1) {
        return service.createWithAddress(reinterpret_cast<const sockaddr*>(&ipv4));
    }
    EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &ipv6.sin6_addr), 1) << text;
    return service.createWithAddress(reinterpret_cast<const sockaddr*>(&ipv6));
}

TEST(NetlinkReachabilityService, InternsOneTargetPerAddressForEveryThread) {
    NetlinkReachabilityService service;
    EXPECT_EQ(targetFor(service, "10.1.2.3", 80), targetFor(service, "10.1.2.3"));
    const sockaddr local{AF_UNIX, {}};
    std::uint32_t flags = 0;
    EXPECT_EQ(std::make_tuple(service.createWithAddress(&local), service.createWithAddress(nullptr),
                              service.getFlags(nullptr, &flags)),
              std::make_tuple(nullptr, nullptr, false));
    // A host asks about the all-zero IPv4 address.
    EXPECT_EQ(Connection::reachabilityForInternetConnection()->reachabilityRef(),
              targetFor(*Platform::reachabilityService(), "0.0.0.0"));

    std::vector<ReachabilityRef> seen(4);
    std::vector<std::jthread> readers;
    for (ReachabilityRef& target : seen) {
        // Threads that share the service make targets and read flags with no lock of their own.
        readers.emplace_back([&service, &target, read = std::uint32_t{0}]() mutable {
            EXPECT_TRUE(service.getFlags(target = targetFor(service, "10.0.0.7"), &read));
        });
    }
    readers.clear();  // joins them
    EXPECT_EQ(seen, std::vector<ReachabilityRef>(4, targetFor(service, "10.0.0.7")));
}

// A veth pair <name>/<name>p, up at both ends, with 10.<n>.0.1/24 on <name>; its gateway is
// 10.<n>.0.2.
std::string veth(const std::string& name, int n) {
    return "link add " + name + " type veth peer name " + name + "p;addr add 10." +
           std::to_string(n) + ".0.1/24 dev " + name + ";link set " + name + " up;link set " +
           name + "p up;";
}

TEST(NetlinkReachabilityService, FlagsFollowTheRouteOutOfTheNamespace) {
    if (!NetworkNamespace::run([] {})) {
        GTEST_SKIP() << "no network namespace of our own: this suite needs root";
    }
    // The kernel cannot make a WWAN device, so the service reads a sysfs tree of the test's.
    const auto sysfs =
        std::filesystem::temp_directory_path() / ("norv-sysfs-" + std::to_string(::getpid()));
    std::filesystem::create_directories(sysfs / "wwan0");
    std::filesystem::create_directories(sysfs / "veth1");
    std::ofstream(sysfs / "wwan0" / "uevent") << "DEVTYPE=wwan\nINTERFACE=wwan0\n";
    std::ofstream(sysfs / "veth1" / "uevent") << "DEVTYPE=wlan\nINTERFACE=veth1\n";
    NetlinkReachabilityService service(sysfs.string());

    const std::string one = veth("veth1", 1) + "route add default via 10.1.0.2 metric 200;";
    const std::string two = one + veth("veth2", 2) + "link set veth2p down;";
    // The namespace's set-up, the address asked about, and the flags it gets.
    const std::tuple<std::string, const char*, std::uint32_t> rows[] = {
        // Loopback does not know its carrier's state, and counts as having one.
        {"link set lo up", "127.0.0.1", R},
        // A route to the address is not a route to the internet.
        {"link set lo up", "0.0.0.0", 0},
        {one, "0.0.0.0", R},
        {one, "::", 0},
        // A default route in a table of its own (a VPN's, say) is not the one packets take.
        {veth("veth1", 1) + "route add default via 10.1.0.2 table 100", "0.0.0.0", 0},
        {one + "link set veth1p down", "0.0.0.0", R | Required},
        // The default route with the lowest metric is the one the kernel takes.
        {two + "route add default via 10.2.0.2 metric 100", "0.0.0.0", R | Required},
        // A multipath route leaves through its first nexthop that is alive.
        {two + "route del default;route add default nexthop via 10.1.0.2 nexthop via 10.2.0.2;"
               "link set veth1 down",
         "0.0.0.0", R | Required},
        // Nobody holds the tunnel open, so it has no carrier yet.
        {"tuntap add dev tun0 mode tun;addr add 10.9.0.1 peer 10.9.0.2 dev tun0;link set tun0 up;"
         "route add default dev tun0",
         "0.0.0.0", R | Required | kReachabilityFlagsTransientConnection},
        {one + veth("wwan0", 3) + "route add default via 10.3.0.2 metric 100", "0.0.0.0",
         R | kReachabilityFlagsIsWWAN},
        {one + veth("wwan0", 3), "10.1.0.9", R},
    };
    for (const auto& [setup, address, expected] : rows) {
        SCOPED_TRACE(setup + " -> " + address);
        std::uint32_t flags = 0xFFFFFFFF;
        EXPECT_TRUE(NetworkNamespace::run([&] {
            ASSERT_TRUE(NetworkNamespace::ip(setup));
            EXPECT_TRUE(service.getFlags(targetFor(service, address), &flags));
        }));
        EXPECT_EQ(flags, expected);
    }
    std::filesystem::remove_all(sysfs);
}

}  // namespace
}  // namespace NorvAnalytic
