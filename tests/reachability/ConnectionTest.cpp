#include <NorvAnalytic/Connection.h>
#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>

#include <optional>
#include <tuple>

#include "support/FakeReachabilityService.h"

namespace NorvAnalytic {
namespace {

using Testing::FakeReachabilityService;

class ConnectionTest : public ::testing::Test {
protected:
    void SetUp() override { Platform::setReachabilityService(service_); }
    void TearDown() override { Platform::setReachabilityService(nullptr); }

    std::shared_ptr<FakeReachabilityService> service_ = std::make_shared<FakeReachabilityService>();
};

TEST_F(ConnectionTest, FlagsGiveTheStatus) {
    // Flags, reachable on WWAN, then the status and whether it is via Wi-Fi.
    const std::tuple<std::optional<std::uint32_t>, bool, ConnectionStatus, bool> rows[] = {
        {0x40002, true, ConnectionStatusCellular, false},
        {0x0, true, ConnectionStatusNone, false},
        // Transient and connection-required together are unreachable; either alone is not.
        {0x7, true, ConnectionStatusNone, true},
        {0x6, true, ConnectionStatusWiFi, true},
        {0x3, true, ConnectionStatusWiFi, true},
        {0x40002, false, ConnectionStatusNone, false},
        {0x2, false, ConnectionStatusWiFi, true},
        {std::nullopt, true, ConnectionStatusNone, false},
    };
    for (const auto& [flags, reachableOnWWAN, status, viaWiFi] : rows) {
        SCOPED_TRACE(::testing::Message() << flags.value_or(~0U) << " " << reachableOnWWAN);
        service_->setFlags(flags);
        const auto connection = Connection::reachabilityForInternetConnection();
        ASSERT_NE(connection, nullptr);
        EXPECT_TRUE(connection->reachableOnWWAN());
        connection->setReachableOnWWAN(reachableOnWWAN);
        EXPECT_EQ(connection->currentReachabilityStatus(), status);
        EXPECT_EQ(connection->isReachable(), status != ConnectionStatusNone);
        EXPECT_EQ(connection->isReachableViaWiFi(), viaWiFi);
    }
}

TEST_F(ConnectionTest, KeepsAskingTheServiceThatMadeItsTarget) {
    const auto connection = Connection::reachabilityForInternetConnection();
    ASSERT_NE(connection, nullptr);
    service_->setCreateFails(true);
    EXPECT_EQ(Connection::reachabilityForInternetConnection(), nullptr);
    auto replacement = std::make_shared<FakeReachabilityService>();
    Platform::setReachabilityService(replacement);
    const std::size_t reads = service_->getFlagsCalls();
    EXPECT_EQ(connection->currentReachabilityStatus(), ConnectionStatusWiFi);
    // Reachable, so the Wi-Fi test reads the flags afresh: a route lost in between still
    // answers Cellular.
    EXPECT_EQ(service_->getFlagsCalls(), reads + 2);
    EXPECT_EQ(replacement->getFlagsCalls(), 0U);
}

}  // namespace
}  // namespace NorvAnalytic
