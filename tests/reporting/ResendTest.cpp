#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <gtest/gtest.h>

#include <algorithm>

#include "support/ReportingHarness.h"

namespace NorvAnalytic {
namespace {

using Testing::LocalHttpServer;
using Testing::ReportingHarness;

// Stands in for the network going away: no target can tell a route.
class NoRouteService final : public ReachabilityService {
public:
    ReachabilityRef createWithAddress(const sockaddr*) override { return this; }
    bool getFlags(ReachabilityRef, std::uint32_t* flags) override {
        *flags = 0;
        return true;
    }
};

std::vector<std::string> pageNames(const std::vector<std::string>& bodies) {
    std::vector<std::string> names;
    for (const auto& body : bodies) {
        const auto at = body.find("&pageName=");
        names.push_back(at == std::string::npos
                            ? "-"
                            : body.substr(at + 10, body.find('&', at + 10) - at - 10));
    }
    return names;
}

std::size_t savedCount() {
    std::size_t count = 0;
    MainQueue::main().sync([&] { count = Event::savedEvents().size(); });
    return count;
}

void refuseEverything(ReportingHarness& harness, int status) {
    harness.server.setResponder([status](const std::string&, const std::string&) {
        LocalHttpServer::Answer answer;
        answer.status = status;
        answer.body = R"({"message":"refused"})";
        return answer;
    });
}

TEST(Resend, RefusedEventsReturnOnePerTickOldestFirstAndOnlyOnce) {
    ReportingHarness harness;
    // Nothing saved: a tick logs and sends nothing.
    harness.tick();
    EXPECT_TRUE(harness.log.lines().empty());
    EXPECT_EQ(harness.server.count(), 0U);

    refuseEverything(harness, 500);
    for (const char* page : {"A", "B", "C"}) {
        NorvAnalytics::sendEventWithPageName(std::string(page));
        harness.settle();
    }
    ASSERT_EQ(savedCount(), 3U);
    harness.server.clear();

    // No route: the ticks log and send nothing.
    Platform::setReachabilityService(std::make_shared<NoRouteService>());
    harness.tick();
    harness.tick();
    Platform::setReachabilityService(nullptr);
    EXPECT_EQ(harness.server.count(), 0U);
    EXPECT_TRUE(harness.log.lines().empty());

    // Refused again on resend: each goes once and is gone.
    for (int i = 0; i < 4; ++i) {
        harness.tick();
    }
    EXPECT_EQ(pageNames(harness.server.bodies()), (std::vector<std::string>{"A", "B", "C"}));
    EXPECT_EQ(harness.log.lines(),
              (std::vector<std::string>{"There are 3 saved events to send!",
                                        "There are 2 saved events to send!",
                                        "There are 1 saved events to send!"}));
    EXPECT_EQ(savedCount(), 0U);
}

TEST(Resend, ValuesComeBackThroughTheirSixDecimalText) {
    ReportingHarness harness;
    refuseEverything(harness, 502);
    NorvAnalytics::sendEventWithType(3, 7.5F, std::string("/a"), std::string("p"),
                                     std::string("r"));
    harness.settle();
    NorvAnalytics::sendEventWithType(3, 0.0000001F, std::string("/b"), std::nullopt,
                                     std::nullopt);
    harness.settle();
    harness.server.clear();
    harness.tick();
    harness.tick();
    const auto bodies = harness.server.bodies();
    ASSERT_EQ(bodies.size(), 2U);
    const std::string uuid = harness.deviceUUID();
    EXPECT_EQ(bodies[0], "key=test-key&value=7.500000&type=4&endpoint=/a&parameters=p&"
                         "response=r&device_uuid=" + uuid + "&vbf_version=1.7.4&"
                         "device_model=iPhone 7&system_version=17.1&is_test_device=1&"
                         "version=1.7.4&is_simulator=0");
    EXPECT_NE(bodies[1].find("value=0.000000&type=4&endpoint=/b&"), std::string::npos);
}

TEST(Resend, AnEventWithoutTypeHoldsTheQueueForGood) {
    ReportingHarness harness;
    refuseEverything(harness, 500);
    NorvAnalytics::sendUsername(std::string("ann"));
    harness.settle();
    NorvAnalytics::sendEventWithPageName(std::string("B"));
    harness.settle();
    harness.server.clear();
    for (int i = 0; i < 3; ++i) {
        harness.tick();
    }
    EXPECT_EQ(harness.server.count(), 0U);
    EXPECT_EQ(harness.log.lines(),
              (std::vector<std::string>(3, "There are 2 saved events to send!")));
    EXPECT_EQ(savedCount(), 2U);
}

TEST(Resend, EveryStartAddsATimerAndDisablingStopsOnlyTheLast) {
    ReportingHarness harness;
    refuseEverything(harness, 500);
    for (const char* page : {"A", "B", "C", "D", "E", "F"}) {
        NorvAnalytics::sendEventWithPageName(std::string(page));
        harness.settle();
    }
    auto first = NorvAnalytics::sharedController().timer();
    NorvAnalytics::initWithKey(std::string("test-key"));
    auto second = NorvAnalytics::sharedController().timer();
    NorvAnalytics::initWithKey(std::string("test-key"));
    NorvAnalytics::sharedController().setUrlString(harness.server.url());
    auto third = NorvAnalytics::sharedController().timer();
    harness.server.clear();
    harness.log.clear();

    // Three timers: the three oldest go out in one second (on connections of their own, so
    // in any order).
    harness.tick();
    auto names = pageNames(harness.server.bodies());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"A", "B", "C"}));

    // The server switches collection off: only the last timer stops, and the dropped resends
    // still leave the list.
    harness.server.setResponder([](const std::string&, const std::string&) {
        LocalHttpServer::Answer answer;
        answer.body = R"({"payload":{"analytics_enabled":false}})";
        return answer;
    });
    NorvAnalytics::sendAppOpenEvent();
    harness.settle();
    EXPECT_FALSE(third->isValid());
    EXPECT_TRUE(first->isValid());
    EXPECT_TRUE(second->isValid());
    harness.server.clear();
    harness.tick();
    EXPECT_EQ(harness.server.count(), 0U);
    EXPECT_EQ(savedCount(), 1U);
    first->invalidate();
    second->invalidate();
}

}  // namespace
}  // namespace NorvAnalytic
