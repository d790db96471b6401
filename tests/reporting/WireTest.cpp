#include <NorvAnalytic/CurlHttpClient.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <thread>

#include "mainqueue/MainQueueClock.h"

#include "support/Eventually.h"
#include "support/LocalHttpServer.h"
#include "support/ReportingHarness.h"

namespace NorvAnalytic {
namespace {

TEST(Wire, AnEventTravelsOverRealHttpAndItsAnswerIsHandledOnTheMainQueue) {
    Testing::ReportingHarness harness;
    Testing::LocalHttpServer server;
    server.setResponder([](const std::string&, const std::string&) {
        Testing::LocalHttpServer::Answer answer;
        answer.body = R"({"payload":{"analytics_enabled":false}})";
        return answer;
    });
    Platform::setHttpClient(std::make_shared<CurlHttpClient>());
    NorvAnalytics::sharedController().setUrlString(server.url());
    NorvAnalytics::sendAppOpenEvent();
    ASSERT_TRUE(server.waitForCount(1));
    EXPECT_EQ(server.bodies().at(0), harness.body({.typeId = "2", .value = 1.0F}, true));
    // Byte for byte, whatever the host's locale: the server parses a decimal point.
    EXPECT_THAT(server.bodies().at(0),
                testing::AllOf(testing::HasSubstr("&value=1.000000&"),
                               testing::HasSubstr("batteryLevel=75.000000")));
    // The answer reaches the main queue after the server has it: wait for its one line.
    Testing::eventually([&] { return !harness.log.lines().empty(); });
    EXPECT_EQ(harness.log.lines(),
              std::vector<std::string>{
                  R"(Analytic is disabled from server {"analytics_enabled":false})"});
}

// Three starts stack three one-second timers: six refused events come back three to a tick,
// each tick's three together, also when the server closed the idle connection (its keep-alive
// is 1 s) in between.
TEST(Wire, ResendsAfterAnIdleSpellArriveOnTheTick) {
    Testing::ReportingHarness harness;
    Testing::LocalHttpServer server;
    std::mutex mutex;
    int received = 0;
    std::vector<std::chrono::steady_clock::time_point> resent;
    server.setResponder([&](const std::string&, const std::string&) {
        std::lock_guard lock(mutex);
        const bool refused = ++received <= 6;
        if (!refused) {
            resent.push_back(std::chrono::steady_clock::now());
        }
        return Testing::LocalHttpServer::Answer{.status = refused ? 500 : 200};
    });
    Platform::setHttpClient(std::make_shared<CurlHttpClient>());
    // The harness's timer runs on its manual clock; these three on the real one.
    NorvAnalytics::sharedController().timer()->invalidate();
    setMainQueueClock(nullptr);
    std::vector<std::shared_ptr<Timer>> timers;
    for (int start = 0; start < 3; ++start) {
        NorvAnalytics::initWithKey(std::string(Testing::ReportingHarness::kKey));
        timers.push_back(NorvAnalytics::sharedController().timer());
    }
    NorvAnalytics::sharedController().setUrlString(server.url());
    for (int page = 0; page < 6; ++page) {
        NorvAnalytics::sendEventWithPageName("page");
    }
    ASSERT_TRUE(server.waitForCount(12, std::chrono::seconds(10)));
    std::ranges::for_each(timers, &Timer::invalidate);
    // The server records a body before its responder runs.
    Testing::eventually([&] {
        std::lock_guard lock(mutex);
        return resent.size() >= 6;
    });
    std::lock_guard lock(mutex);
    ASSERT_EQ(resent.size(), 6U);
    EXPECT_LT(resent[2] - resent[0], std::chrono::milliseconds(300));
    EXPECT_LT(resent[5] - resent[3], std::chrono::milliseconds(300));
}

}  // namespace
}  // namespace NorvAnalytic
