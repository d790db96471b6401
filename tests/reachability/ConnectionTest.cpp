#include <NorvAnalytic/Connection.h>
#include <NorvAnalytic/Platform.h>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <deque>
#include <optional>

namespace NorvAnalytic {
namespace {

// Hands out one target and answers each flag read from a script: a value, or nullopt for
// flags that cannot be read. The last answer repeats.
class ScriptedReachabilityService final : public ReachabilityService {
public:
    ReachabilityRef createWithAddress(const sockaddr* address) override {
        std::memcpy(&lastAddress, address, sizeof(sockaddr_in));
        return makesTargets ? &target_ : nullptr;
    }

    bool getFlags(ReachabilityRef target, std::uint32_t* flags) override {
        EXPECT_EQ(target, &target_);
        ++reads;
        const std::optional<std::uint32_t> answer = answers.front();
        if (answers.size() > 1) {
            answers.pop_front();
        }
        if (!answer) {
            return false;
        }
        *flags = *answer;
        return true;
    }

    bool makesTargets = true;
    std::deque<std::optional<std::uint32_t>> answers{std::uint32_t{0}};
    sockaddr_in lastAddress{};
    int reads = 0;

private:
    int target_ = 0;
};

class ConnectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        previous_ = Platform::reachabilityService();
        Platform::setReachabilityService(service_);
    }
    void TearDown() override { Platform::setReachabilityService(previous_); }

    ConnectionStatus statusFor(std::optional<std::uint32_t> flags, bool reachableOnWWAN = true) {
        service_->answers = {flags};
        auto connection = Connection::reachabilityForInternetConnection();
        EXPECT_NE(connection, nullptr);
        if (!connection) {
            return ConnectionStatusNone;
        }
        connection->setReachableOnWWAN(reachableOnWWAN);
        return connection->currentReachabilityStatus();
    }

    std::shared_ptr<ScriptedReachabilityService> service_ =
        std::make_shared<ScriptedReachabilityService>();

private:
    std::shared_ptr<ReachabilityService> previous_;
};

TEST_F(ConnectionTest, StatusFollowsTheFlagRule) {
    EXPECT_EQ(statusFor(0x2), ConnectionStatusWiFi);
    EXPECT_EQ(statusFor(0x40002), ConnectionStatusCellular);
    EXPECT_EQ(statusFor(0x0), ConnectionStatusNone);
    // Transient and connection-required together are unreachable; either alone is not.
    EXPECT_EQ(statusFor(0x7), ConnectionStatusNone);
    EXPECT_EQ(statusFor(0x6), ConnectionStatusWiFi);
    EXPECT_EQ(statusFor(0x3), ConnectionStatusWiFi);
    EXPECT_EQ(statusFor(0x40006), ConnectionStatusCellular);
    EXPECT_EQ(statusFor(0x40002, false), ConnectionStatusNone);
    EXPECT_EQ(statusFor(0x2, false), ConnectionStatusWiFi);
    EXPECT_EQ(statusFor(0x40000), ConnectionStatusNone);
    EXPECT_EQ(statusFor(std::nullopt), ConnectionStatusNone);
}

TEST_F(ConnectionTest, InternetConnectionAsksAboutTheAllZeroIPv4Address) {
    auto connection = Connection::reachabilityForInternetConnection();
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(service_->lastAddress.sin_family, AF_INET);
    EXPECT_EQ(service_->lastAddress.sin_port, 0);
    EXPECT_EQ(service_->lastAddress.sin_addr.s_addr, 0U);
    EXPECT_TRUE(connection->reachableOnWWAN());
    EXPECT_NE(connection->reachabilityRef(), nullptr);
    EXPECT_EQ(connection->reachabilitySerialQueue().find(' '), std::string::npos);
    EXPECT_NE(connection->reachabilitySerialQueue().find('.'), std::string::npos);
}

TEST_F(ConnectionTest, NoTargetGivesNoConnection) {
    service_->makesTargets = false;
    EXPECT_EQ(Connection::reachabilityForInternetConnection(), nullptr);

    // The platform's default service makes targets for IP addresses only.
    Platform::setReachabilityService(nullptr);
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    EXPECT_NE(Connection::reachabilityWithAddress(reinterpret_cast<const sockaddr*>(&ipv4)),
              nullptr);
    sockaddr local{};
    local.sa_family = AF_UNIX;
    EXPECT_EQ(Connection::reachabilityWithAddress(&local), nullptr);
}

TEST_F(ConnectionTest, EachTestReadsTheFlagsAfresh) {
    // Reachable on the first read, gone on the second: the status is Cellular, not None.
    service_->answers = {std::uint32_t{0x2}, std::nullopt};
    auto connection = Connection::reachabilityForInternetConnection();
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(connection->currentReachabilityStatus(), ConnectionStatusCellular);
    EXPECT_EQ(service_->reads, 2);

    service_->answers = {std::uint32_t{0x40002}};
    EXPECT_TRUE(connection->isReachable());
    EXPECT_FALSE(connection->isReachableViaWiFi());
    connection->setReachableOnWWAN(false);
    EXPECT_FALSE(connection->isReachable());
    EXPECT_FALSE(connection->isReachableViaWiFi());
    // The Wi-Fi test ignores the transient and connection-required bits.
    service_->answers = {std::uint32_t{0x7}};
    EXPECT_FALSE(connection->isReachable());
    EXPECT_TRUE(connection->isReachableViaWiFi());
}

TEST_F(ConnectionTest, KeepsAskingTheServiceThatMadeItsTarget) {
    service_->answers = {std::uint32_t{0x2}};
    auto connection = Connection::reachabilityForInternetConnection();
    ASSERT_NE(connection, nullptr);
    auto replacement = std::make_shared<ScriptedReachabilityService>();
    Platform::setReachabilityService(replacement);
    EXPECT_EQ(connection->currentReachabilityStatus(), ConnectionStatusWiFi);
    EXPECT_EQ(replacement->reads, 0);
}

}  // namespace
}  // namespace NorvAnalytic
