#include <NorvAnalytic/Connection.h>
#include <NorvAnalytic/Platform.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

#include "reachability/NetlinkReachabilityService.h"
#include "support/NetworkNamespace.h"

namespace NorvAnalytic {
namespace {

using Testing::NetworkNamespace;

constexpr std::uint32_t kReachable = kReachabilityFlagsReachable;
constexpr std::uint32_t kRequired = kReachabilityFlagsConnectionRequired;
constexpr std::uint32_t kTransient = kReachabilityFlagsTransientConnection;
constexpr std::uint32_t kWWAN = kReachabilityFlagsIsWWAN;

sockaddr_storage socketAddress(const std::string& text, std::uint16_t port = 0) {
    sockaddr_storage storage{};
    auto* ipv4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* ipv6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, text.c_str(), &ipv4->sin_addr) == 1) {
        ipv4->sin_family = AF_INET;
        ipv4->sin_port = htons(port);
    } else if (inet_pton(AF_INET6, text.c_str(), &ipv6->sin6_addr) == 1) {
        ipv6->sin6_family = AF_INET6;
        ipv6->sin6_port = htons(port);
    }
    return storage;
}

ReachabilityRef targetFor(ReachabilityService& service, const std::string& address,
                          std::uint16_t port = 0) {
    const sockaddr_storage storage = socketAddress(address, port);
    return service.createWithAddress(reinterpret_cast<const sockaddr*>(&storage));
}

// The flags for the address as seen from inside the namespace; nullopt when unreadable.
std::optional<std::uint32_t> flagsInside(const NetworkNamespace& space,
                                         NetlinkReachabilityService& service,
                                         const std::string& address) {
    std::optional<std::uint32_t> answer;
    const bool entered = space.run([&] {
        std::uint32_t flags = 0xFFFFFFFF;
        if (service.getFlags(targetFor(service, address), &flags)) {
            answer = flags;
        }
    });
    EXPECT_TRUE(entered) << "could not enter " << space.name();
    return answer;
}

// The status a host gets from the platform's reachability service inside the namespace.
ConnectionStatus internetStatusInside(const NetworkNamespace& space, bool reachableOnWWAN = true) {
    ConnectionStatus status = ConnectionStatusNone;
    const bool entered = space.run([&] {
        auto connection = Connection::reachabilityForInternetConnection();
        ASSERT_NE(connection, nullptr);
        connection->setReachableOnWWAN(reachableOnWWAN);
        status = connection->currentReachabilityStatus();
    });
    EXPECT_TRUE(entered) << "could not enter " << space.name();
    return status;
}

// A veth pair veth<n>/peer<n> with address 10.20<n>.0.1/24 on veth<n>, both ends up.
void addVeth(const NetworkNamespace& space, int n) {
    const std::string veth = "veth" + std::to_string(n);
    const std::string peer = "peer" + std::to_string(n);
    ASSERT_TRUE(space.ip({"link", "add", veth, "type", "veth", "peer", "name", peer}));
    ASSERT_TRUE(space.ip({"addr", "add", "10.20" + std::to_string(n) + ".0.1/24", "dev", veth}));
    ASSERT_TRUE(space.ip({"link", "set", veth, "up"}));
    ASSERT_TRUE(space.ip({"link", "set", peer, "up"}));
}

std::string gatewayOf(int n) { return "10.20" + std::to_string(n) + ".0.2"; }

class NetlinkReachabilityServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!space_.created()) {
            GTEST_SKIP() << "no network namespace: " << space_.failure();
        }
    }

    NetworkNamespace space_;
    NetlinkReachabilityService service_;
};

TEST(NetlinkReachabilityServiceTargets, AreInternedPerAddress) {
    NetlinkReachabilityService service_;
    const ReachabilityRef zero = targetFor(service_, "0.0.0.0");
    ASSERT_NE(zero, nullptr);
    EXPECT_EQ(targetFor(service_, "0.0.0.0", 443), zero);
    EXPECT_EQ(targetFor(service_, "10.1.2.3"), targetFor(service_, "10.1.2.3", 80));
    EXPECT_NE(targetFor(service_, "10.1.2.3"), zero);
    EXPECT_NE(targetFor(service_, "::"), zero);
    EXPECT_EQ(targetFor(service_, "::"), targetFor(service_, "::"));

    sockaddr local{};
    local.sa_family = AF_UNIX;
    EXPECT_EQ(service_.createWithAddress(&local), nullptr);
    EXPECT_EQ(service_.createWithAddress(nullptr), nullptr);
    std::uint32_t flags = 0;
    EXPECT_FALSE(service_.getFlags(nullptr, &flags));
}

TEST_F(NetlinkReachabilityServiceTest, NoRouteIsNotReachable) {
    EXPECT_EQ(flagsInside(space_, service_, "0.0.0.0"), 0U);
    EXPECT_EQ(flagsInside(space_, service_, "198.51.100.7"), 0U);
    EXPECT_EQ(internetStatusInside(space_), ConnectionStatusNone);

    // A route to the address alone is not a route to the internet.
    ASSERT_TRUE(space_.ip({"link", "set", "lo", "up"}));
    EXPECT_EQ(flagsInside(space_, service_, "127.0.0.1"), kReachable);
    EXPECT_EQ(flagsInside(space_, service_, "0.0.0.0"), 0U);
}

TEST_F(NetlinkReachabilityServiceTest, DefaultRouteOverEthernetIsWiFi) {
    addVeth(space_, 0);
    ASSERT_TRUE(space_.ip({"route", "add", "default", "via", gatewayOf(0)}));
    EXPECT_EQ(flagsInside(space_, service_, "0.0.0.0"), kReachable);
    EXPECT_EQ(flagsInside(space_, service_, "198.51.100.7"), kReachable);
    EXPECT_EQ(internetStatusInside(space_), ConnectionStatusWiFi);
    // An IPv4 default route says nothing about IPv6.
    EXPECT_EQ(flagsInside(space_, service_, "::"), 0U);

    // Several threads share one service.
    std::vector<std::uint32_t> seen(4, 0);
    ASSERT_TRUE(space_.run([&] {
        std::vector<std::thread> readers;
        for (std::size_t i = 0; i < seen.size(); ++i) {
            readers.emplace_back([&, i] {
                for (int round = 0; round < 20; ++round) {
                    std::uint32_t flags = 0;
                    const std::string address = "10.200.0." + std::to_string(10 + round % 3);
                    if (service_.getFlags(targetFor(service_, address), &flags)) {
                        seen[i] |= flags;
                    }
                }
            });
        }
        for (auto& reader : readers) {
            reader.join();
        }
    }));
    EXPECT_EQ(seen, std::vector<std::uint32_t>(4, kReachable));
}

TEST_F(NetlinkReachabilityServiceTest, InterfaceWithoutCarrierNeedsAConnection) {
    addVeth(space_, 0);
    ASSERT_TRUE(space_.ip({"route", "add", "default", "via", gatewayOf(0)}));
    ASSERT_TRUE(space_.ip({"link", "set", "peer0", "down"}));
    EXPECT_EQ(flagsInside(space_, service_, "0.0.0.0"), kReachable | kRequired);
    // Connection required on its own still counts as reachable.
    EXPECT_EQ(internetStatusInside(space_), ConnectionStatusWiFi);

    ASSERT_TRUE(space_.ip({"link", "set", "peer0", "up"}));
    EXPECT_EQ(flagsInside(space_, service_, "0.0.0.0"), kReachable);

    // Taking the interface down takes its default route with it.
    ASSERT_TRUE(space_.ip({"link", "set", "veth0", "down"}));
    EXPECT_EQ(flagsInside(space_, service_, "0.0.0.0"), 0U);
}

TEST_F(NetlinkReachabilityServiceTest, TheDefaultRouteTheKernelWouldTakeDecides) {
    addVeth(space_, 0);
    addVeth(space_, 1);
    ASSERT_TRUE(space_.ip({"link", "set", "peer1", "down"}));
    ASSERT_TRUE(space_.ip({"route", "add", "default", "via", gatewayOf(0), "metric", "200"}));
    ASSERT_TRUE(space_.ip({"route", "add", "default", "via", gatewayOf(1), "metric", "100"}));
    EXPECT_EQ(flagsInside(space_, service_, "0.0.0.0"), kReachable | kRequired);
    ASSERT_TRUE(space_.ip({"route", "del", "default", "via", gatewayOf(1), "metric", "100"}));
    EXPECT_EQ(flagsInside(space_, service_, "0.0.0.0"), kReachable);

    // A multipath route leaves through its first nexthop that is alive.
    ASSERT_TRUE(space_.ip({"route", "del", "default"}));
    ASSERT_TRUE(space_.ip({"route", "add", "default", "nexthop", "via", gatewayOf(0), "nexthop",
                           "via", gatewayOf(1)}));
    EXPECT_EQ(flagsInside(space_, service_, "0.0.0.0"), kReachable);
    ASSERT_TRUE(space_.ip({"link", "set", "veth0", "down"}));
    EXPECT_EQ(flagsInside(space_, service_, "0.0.0.0"), kReachable | kRequired);
}

TEST_F(NetlinkReachabilityServiceTest, PointToPointLinkIsTransient) {
    ASSERT_TRUE(space_.ip({"tuntap", "add", "dev", "tun0", "mode", "tun"}));
    ASSERT_TRUE(space_.ip({"addr", "add", "10.99.0.1", "peer", "10.99.0.2", "dev", "tun0"}));
    ASSERT_TRUE(space_.ip({"link", "set", "tun0", "up"}));
    ASSERT_TRUE(space_.ip({"route", "add", "default", "dev", "tun0"}));
    // Nobody holds the tunnel open, so it has no carrier: transient and still to be set up.
    EXPECT_EQ(flagsInside(space_, service_, "0.0.0.0"), kReachable | kRequired | kTransient);
    EXPECT_EQ(internetStatusInside(space_), ConnectionStatusNone);

    // Attaching to the tunnel brings its carrier up.
    std::optional<std::uint32_t> attached;
    ConnectionStatus attachedStatus = ConnectionStatusNone;
    ASSERT_TRUE(space_.run([&] {
        const int tunnel = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
        ASSERT_GE(tunnel, 0) << std::strerror(errno);
        ifreq request{};
        request.ifr_flags = IFF_TUN | IFF_NO_PI;
        std::strncpy(request.ifr_name, "tun0", IFNAMSIZ - 1);
        EXPECT_EQ(::ioctl(tunnel, TUNSETIFF, &request), 0) << std::strerror(errno);
        std::uint32_t flags = 0;
        if (service_.getFlags(targetFor(service_, "0.0.0.0"), &flags)) {
            attached = flags;
        }
        attachedStatus = Connection::reachabilityForInternetConnection()
                             ->currentReachabilityStatus();
        ::close(tunnel);
    }));
    EXPECT_EQ(attached, kReachable | kTransient);
    EXPECT_EQ(attachedStatus, ConnectionStatusWiFi);
}

// No WWAN device can be made here (the kernel has no WWAN simulator), so the interface's
// sysfs entry is a tree the test writes.
TEST_F(NetlinkReachabilityServiceTest, WwanDeviceIsCellular) {
    const auto sysfs = std::filesystem::temp_directory_path() / (space_.name() + "-sysfs");
    struct RemoveTree {
        std::filesystem::path path;
        ~RemoveTree() { std::filesystem::remove_all(path); }
    } removeTree{sysfs};
    std::filesystem::create_directories(sysfs / "veth0");
    std::filesystem::create_directories(sysfs / "veth1");
    std::ofstream(sysfs / "veth0" / "uevent") << "DEVTYPE=wwan\nINTERFACE=veth0\nIFINDEX=2\n";
    std::ofstream(sysfs / "veth1" / "uevent") << "DEVTYPE=wlan\nINTERFACE=veth1\nIFINDEX=4\n";

    addVeth(space_, 0);
    addVeth(space_, 1);
    ASSERT_TRUE(space_.ip({"route", "add", "default", "via", gatewayOf(0)}));
    auto service = std::make_shared<NetlinkReachabilityService>(sysfs.string());
    EXPECT_EQ(flagsInside(space_, *service, "0.0.0.0"), kReachable | kWWAN);
    EXPECT_EQ(flagsInside(space_, *service, "10.201.0.9"), kReachable);

    const auto previous = Platform::reachabilityService();
    Platform::setReachabilityService(service);
    EXPECT_EQ(internetStatusInside(space_), ConnectionStatusCellular);
    EXPECT_EQ(internetStatusInside(space_, false), ConnectionStatusNone);
    Platform::setReachabilityService(previous);
}

}  // namespace
}  // namespace NorvAnalytic
