#include <NorvAnalytic/NorvAnalytics.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <thread>

#include "support/ReportingHarness.h"

namespace NorvAnalytic {
namespace {

using Testing::ReportingHarness;

// Replaces every "{UUID}" with the device's UUID.
std::string withUUID(std::string text, const std::string& uuid) {
    for (auto at = text.find("{UUID}"); at != std::string::npos; at = text.find("{UUID}")) {
        text.replace(at, 6, uuid);
    }
    return text;
}

struct Call {
    std::function<void()> send;
    std::string body;
};

TEST(Submission, EveryEventCallSendsItsExactBody) {
    ReportingHarness harness;
    NorvAnalytics::saveStoreUserID(std::string("store-user-7"));
    const std::string common = "vbf_version=1.7.4&device_model=iPhone 7&system_version=17.1";
    const std::string tail = "is_test_device=1&version=1.7.4&is_simulator=0";
    const std::string appOpen = "batteryLevel=75.000000&user_id=store-user-7&";
    const std::vector<Call> calls = {
        {[] { NorvAnalytics::sendUsername(std::string("ann")); },
         "key=test-key&value=0.000000&parameters=(null)&response=(null)&device_uuid={UUID}&"
         "vbf_version=1.7.4&username=ann&device_model=iPhone 7&system_version=17.1&" +
             tail},
        {[] { NorvAnalytics::sendWarehouse(std::string("north")); },
         "key=test-key&value=0.000000&parameters=(null)&response=(null)&device_uuid={UUID}&"
         "vbf_version=1.7.4&warehouse=north&device_model=iPhone 7&system_version=17.1&" +
             tail},
        {[] { NorvAnalytics::sendError(std::string("boom")); },
         "key=test-key&value=0.000000&parameters=(null)&response=(null)&device_uuid={UUID}&"
         "vbf_version=1.7.4&error=boom&device_model=iPhone 7&system_version=17.1&" +
             tail},
        {[] { NorvAnalytics::sendDeviceName(std::string("scanner")); },
         "key=test-key&value=0.000000&parameters=(null)&response=(null)&device_uuid={UUID}&"
         "vbf_version=1.7.4&device_name=scanner&device_model=iPhone 7&system_version=17.1&" +
             tail},
        {[] { NorvAnalytics::sendEventWithPlayerId(std::string("p-1")); },
         "key=test-key&value=0.000000&type=22&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&player_id=p-1&" +
             common + "&" + tail},
        {[] { NorvAnalytics::sendEventWithPageName(std::string("Home")); },
         "key=test-key&value=0.000000&type=7&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&pageName=Home&" +
             common + "&" + tail},
        {[] {
             NorvAnalytics::sendUserLoginEventWithParameters(std::string("p"), std::string("r"));
         },
         "key=test-key&value=0.000000&type=5&parameters=p&response=r&device_uuid={UUID}&" + common +
             "&" + tail},
        {[] {
             NorvAnalytics::sendUserLoginEventWithParameters(std::string("p"), std::string("r"),
                                                             std::string("ann"));
         },
         "key=test-key&value=0.000000&type=5&parameters=p&response=r&device_uuid={UUID}&"
         "vbf_version=1.7.4&username=ann&device_model=iPhone 7&system_version=17.1&" +
             tail},
        {[] {
             NorvAnalytics::sendUserLoginEventWithParameters(
                 std::string("p"), std::string("r"), std::string("ann"), std::string("north"));
         },
         "key=test-key&value=0.000000&type=5&parameters=p&response=r&device_uuid={UUID}&"
         "vbf_version=1.7.4&username=ann&warehouse=north&device_model=iPhone 7&"
         "system_version=17.1&" +
             tail},
        {[] {
             NorvAnalytics::sendUserCanNotLoginEventWithParameters(std::string("p"),
                                                                   std::string("r"));
         },
         "key=test-key&value=0.000000&type=15&parameters=p&response=r&device_uuid={UUID}&" +
             common + "&" + tail},
        {[] {
             NorvAnalytics::sendUserCanNotLoginEventWithParameters(
                 std::string("p"), std::string("r"), std::string("denied"));
         },
         "key=test-key&value=0.000000&type=15&parameters=p&response=r&device_uuid={UUID}&"
         "vbf_version=1.7.4&error=denied&device_model=iPhone 7&system_version=17.1&" +
             tail},
        {[] { NorvAnalytics::sendUserLogoutEvent(); },
         "key=test-key&value=0.000000&type=6&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&" +
             common + "&" + tail},
        {[] { NorvAnalytics::sendDeviceCustomName(std::string("Till 3")); },
         "key=test-key&value=0.000000&type=23&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&vbf_version=1.7.4&deviceCustomName=Till 3&device_model=iPhone 7&"
         "system_version=17.1&" +
             tail},
        {[] { NorvAnalytics::sendLocationServiceStatusEventWithValue(2); },
         "key=test-key&value=2.000000&type=18&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&" +
             common + "&" + tail},
        {[] { NorvAnalytics::sendBluetoothStatusEventWithValue(3); },
         "key=test-key&value=3.000000&type=17&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&" +
             common + "&" + tail},
        {[] { NorvAnalytics::sendExternalAccessoryBatteryIsLowEvent(); },
         "key=test-key&value=0.000000&type=20&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&" +
             common + "&" + tail},
        {[] { NorvAnalytics::sendExternalAccessoryBatteryStatusWithValue(16777217); },
         "key=test-key&value=16777216.000000&type=21&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&" +
             common + "&" + tail},
        {[] { NorvAnalytics::sendAppOpenEventWithDeviceName(std::string("scanner")); },
         "key=test-key&value=1.000000&type=2&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&vbf_version=1.7.4&device_name=scanner&device_model=iPhone 7&"
         "system_version=17.1&" +
             appOpen + tail},
        {[] { NorvAnalytics::sendAppOpenEvent(); },
         "key=test-key&value=1.000000&type=2&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&" +
             common + "&" + appOpen + tail},
        {[] { NorvAnalytics::sendAppOpenEventWithUsername(std::string("ann")); },
         "key=test-key&value=1.000000&type=2&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&vbf_version=1.7.4&username=ann&device_model=iPhone 7&"
         "system_version=17.1&" +
             appOpen + tail},
        {[] {
             NorvAnalytics::sendAppOpenEventWithUsername(std::string("ann"),
                                                         std::string("scanner"));
         },
         "key=test-key&value=1.000000&type=2&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&vbf_version=1.7.4&username=ann&device_name=scanner&"
         "device_model=iPhone 7&system_version=17.1&" +
             appOpen + tail},
        {[] { NorvAnalytics::sendAppCloseEvent(); },
         "key=test-key&value=0.000000&type=2&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&" +
             common + "&" + appOpen + tail},
        {[] {
             NorvAnalytics::sendDataNotRetrievedEventWithEndpoint(
                 std::string("/orders"), std::string("page=1"), std::string("timeout"));
         },
         "key=test-key&value=0.000000&type=16&endpoint=/orders&parameters=page=1&"
         "response=timeout&device_uuid={UUID}&" +
             common + "&" + tail},
        {[] {
             NorvAnalytics::sendEventWithType(7, 0.25F, std::string("/e"), std::nullopt,
                                              std::nullopt);
         },
         "key=test-key&value=0.250000&type=8&endpoint=/e&parameters=(null)&response=(null)&"
         "device_uuid={UUID}&" +
             common + "&" + tail},
        // Outside the catalogue: no type, and so no battery or user id either.
        {[] {
             NorvAnalytics::sendEventWithType(17, 1.0F, std::nullopt, std::nullopt, std::nullopt);
         },
         "key=test-key&value=1.000000&parameters=(null)&response=(null)&device_uuid={UUID}&" +
             common + "&" + tail},
    };
    const std::string uuid = harness.deviceUUID();
    ASSERT_EQ(uuid.size(), 36U);
    for (std::size_t i = 0; i < calls.size(); ++i) {
        harness.server.clear();
        calls[i].send();
        ASSERT_TRUE(harness.server.waitForCount(1)) << "call " << i;
        EXPECT_EQ(harness.server.bodies().at(0), withUUID(calls[i].body, uuid)) << "call " << i;
        EXPECT_EQ(harness.server.paths().at(0), "/api/v3/saveEvent");
    }
}

TEST(Submission, BodyEdgesKeepOrderCutAndRawText) {
    ReportingHarness harness;
    const std::string uuid = harness.deviceUUID();
    NorvAnalytics::saveStoreUserID(std::nullopt);
    harness.device->setBatteryLevel(-1.0F);

    NorvAnalytics::initWithKey(std::nullopt);
    NorvAnalytics::setSecureUrl(false);
    NorvAnalytics::sharedController().setUrlString(harness.server.url());
    NorvAnalytics::sendAppOpenEvent();
    ASSERT_TRUE(harness.server.waitForCount(1));
    // No key: the body starts with "value" and no "&"; unknown battery; no stored user id.
    EXPECT_EQ(harness.server.bodies().back(),
              withUUID("value=1.000000&type=2&parameters=(null)&response=(null)&"
                       "device_uuid={UUID}&vbf_version=1.7.4&device_model=iPhone 7&"
                       "system_version=17.1&batteryLevel=-100.000000&is_test_device=1&"
                       "version=1.7.4&is_simulator=0",
                       uuid));
    if (auto timer = NorvAnalytics::sharedController().timer()) {
        timer->invalidate();
    }
    NorvAnalytics::initWithKey(std::string("test-key"));
    NorvAnalytics::sharedController().setUrlString(harness.server.url());

    const std::string exactly200(200, 'p');
    const std::string emoji = "\xF0\x9F\x98\x80";  // two UTF-16 units
    struct Case {
        std::string parameters;
        std::string sent;
    };
    const std::vector<Case> cases = {
        {exactly200, exactly200},
        {exactly200 + "q", exactly200},
        // The emoji would take units 200 and 201: it is left out whole.
        {std::string(199, 'a') + emoji + "zz", std::string(199, 'a')},
        {std::string(198, 'a') + emoji + "zz", std::string(198, 'a') + emoji},
        // Invalid UTF-8 goes out as U+FFFD.
        {"ok\xC3(\xFF", "ok\xEF\xBF\xBD(\xEF\xBF\xBD"},
        // Nothing is escaped.
        {"a=1&b=2 c\nd", "a=1&b=2 c\nd"},
    };
    for (const auto& c : cases) {
        harness.server.clear();
        NorvAnalytics::sendUserLoginEventWithParameters(c.parameters, std::string("r"));
        ASSERT_TRUE(harness.server.waitForCount(1));
        EXPECT_EQ(harness.server.bodies().at(0),
                  withUUID("key=test-key&value=0.000000&type=5&parameters=" + c.sent +
                               "&response=r&device_uuid={UUID}&vbf_version=1.7.4&"
                               "device_model=iPhone 7&system_version=17.1&is_test_device=1&"
                               "version=1.7.4&is_simulator=0",
                           uuid));
    }

    // A multi-megabyte endpoint goes out whole; the parameters cut bounds only those two.
    harness.server.clear();
    const std::string hugeEndpoint(3 * 1024 * 1024, 'e');
    NorvAnalytics::sendDataNotRetrievedEventWithEndpoint(hugeEndpoint, std::nullopt, std::nullopt);
    ASSERT_TRUE(harness.server.waitForCount(1));
    EXPECT_NE(harness.server.bodies().at(0).find("&endpoint=" + hugeEndpoint + "&"),
              std::string::npos);
}

TEST(Submission, RequestTimingSendsElapsedSecondsOncePerStart) {
    ReportingHarness harness;
    const Date t0 = std::chrono::system_clock::now();
    const auto valueOf = [](const std::string& body) {
        const auto at = body.find("value=") + 6;
        return body.substr(at, body.find('&', at) - at);
    };

    NorvAnalytics::sendRequestStartTime(t0, std::string("/a"));
    NorvAnalytics::sendRequestEndTime(t0 + std::chrono::milliseconds(1500), std::string("/a"),
                                      std::string("q=1"), std::string("ok"));
    ASSERT_TRUE(harness.server.waitForCount(1));
    EXPECT_EQ(valueOf(harness.server.bodies()[0]), "1.500000");
    EXPECT_NE(harness.server.bodies()[0].find("&type=1&endpoint=/a&parameters=q=1&response=ok&"),
              std::string::npos);

    // Two starts: measured from the second; the second end finds nothing.
    NorvAnalytics::sendRequestStartTime(t0, std::string("/b"));
    NorvAnalytics::sendRequestStartTime(t0 + std::chrono::seconds(1), std::string("/b"));
    NorvAnalytics::sendRequestEndTime(t0 + std::chrono::milliseconds(1250), std::string("/b"),
                                      std::nullopt, std::nullopt);
    NorvAnalytics::sendRequestEndTime(t0 + std::chrono::seconds(9), std::string("/b"), std::nullopt,
                                      std::nullopt);
    // Ignored starts, an end without a start, and a nil end time (value 0).
    NorvAnalytics::sendRequestStartTime(std::nullopt, std::string("/c"));
    NorvAnalytics::sendRequestStartTime(t0, std::nullopt);
    NorvAnalytics::sendRequestEndTime(t0, std::string("/c"), std::nullopt, std::nullopt);
    NorvAnalytics::sendRequestEndTime(t0, std::nullopt, std::nullopt, std::nullopt);
    NorvAnalytics::sendRequestStartTime(t0, std::string("/d"));
    NorvAnalytics::sendRequestEndTime(std::nullopt, std::string("/d"), std::nullopt, std::nullopt);
    // An end before its start is negative.
    NorvAnalytics::sendRequestStartTime(t0, std::string("/e"));
    NorvAnalytics::sendRequestEndTime(t0 - std::chrono::milliseconds(250), std::string("/e"),
                                      std::nullopt, std::nullopt);
    harness.settle();
    // Requests travel on several connections, so they may arrive in any order.
    std::map<std::string, std::string> valueByEndpoint;
    for (const auto& body : harness.server.bodies()) {
        const auto at = body.find("&endpoint=") + 10;
        valueByEndpoint[body.substr(at, body.find('&', at) - at)] = valueOf(body);
    }
    EXPECT_EQ(
        valueByEndpoint,
        (std::map<std::string, std::string>{
            {"/a", "1.500000"}, {"/b", "0.250000"}, {"/d", "0.000000"}, {"/e", "-0.250000"}}));
}

TEST(Submission, ManyThreadsLoseNoEventAndNeverWaitOnTheNetwork) {
    ReportingHarness harness;
    constexpr int kThreads = 8;
    constexpr int kPerThread = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kPerThread; ++i) {
                NorvAnalytics::sendEventWithPageName("t" + std::to_string(t) + "-" +
                                                     std::to_string(i));
                NorvAnalytics::sendRequestStartTime(std::chrono::system_clock::now(),
                                                    "/t" + std::to_string(t));
                NorvAnalytics::sendRequestEndTime(std::chrono::system_clock::now(),
                                                  "/t" + std::to_string(t), std::nullopt,
                                                  std::nullopt);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    harness.settle();
    const auto bodies = harness.server.bodies();
    ASSERT_EQ(bodies.size(), static_cast<std::size_t>(kThreads * kPerThread * 2));
    std::set<std::string> pages;
    for (const auto& body : bodies) {
        const auto at = body.find("&pageName=");
        if (at != std::string::npos) {
            pages.insert(body.substr(at + 10, body.find('&', at + 10) - at - 10));
        }
    }
    EXPECT_EQ(pages.size(), static_cast<std::size_t>(kThreads * kPerThread));

    // A server that answers only after two seconds: the calls still return at once.
    harness.server.setResponder([](const std::string&, const std::string&) {
        Testing::LocalHttpServer::Answer answer;
        answer.delay = std::chrono::seconds(2);
        return answer;
    });
    const auto started = std::chrono::steady_clock::now();
    for (int i = 0; i < 12; ++i) {
        NorvAnalytics::sendUserLogoutEvent();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
}

}  // namespace
}  // namespace NorvAnalytic
