#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/norv.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <iterator>
#include <set>
#include <thread>
#include <utility>

#include "support/ReportingHarness.h"

namespace NorvAnalytic {
namespace {

using Testing::ReportingHarness;

// Each call and its C twin send the same body. Page names go out all through the resend tests,
// and through their C call in the Python suite.
TEST(EventCalls, EachCallAndItsCTwinSendItsTypeValueAndSlots) {
    ReportingHarness harness;
    NorvAnalytics::saveStoreUserID("store-user-7");
    const std::string p = "p", r = "r", longName(300, 'n');
    const Date t1000 = Date(std::chrono::seconds(1000));
    struct Row {
        std::function<void()> call, c;
        Testing::ExpectedEvent sent;
    };
    const std::vector<Row> rows = {
        {[&] { NorvAnalytics::sendUsername(longName); },
         [&] { norv_send_username(longName.c_str()); }, {.username = longName}},
        {[] { NorvAnalytics::sendWarehouse("north"); }, [] { norv_send_warehouse("north"); },
         {.warehouse = "north"}},
        {[] { NorvAnalytics::sendError("boom"); }, [] { norv_send_error("boom"); },
         {.error = "boom"}},
        {[] { NorvAnalytics::sendDeviceName("sc"); }, [] { norv_send_device_name("sc"); },
         {.deviceName = "sc"}},
        {[] { NorvAnalytics::sendEventWithPlayerId("p-1"); },
         [] { norv_send_event_with_player_id("p-1"); }, {.typeId = "22", .playerId = "p-1"}},
        {[&] { NorvAnalytics::sendUserLoginEventWithParameters(p, r); },
         [] { norv_send_user_login_event("p", "r", nullptr, nullptr); },
         {.typeId = "5", .parameters = p, .response = r}},
        {[&] { NorvAnalytics::sendUserLoginEventWithParameters(p, r, "ann"); },
         [] { norv_send_user_login_event("p", "r", "ann", nullptr); },
         {.typeId = "5", .parameters = p, .response = r, .username = "ann"}},
        {[&] { NorvAnalytics::sendUserLoginEventWithParameters(p, r, "ann", "n"); },
         [] { norv_send_user_login_event("p", "r", "ann", "n"); },
         {.typeId = "5", .parameters = p, .response = r, .username = "ann", .warehouse = "n"}},
        {[&] { NorvAnalytics::sendUserCanNotLoginEventWithParameters(p, r); },
         [] { norv_send_user_can_not_login_event("p", "r", nullptr); },
         {.typeId = "15", .parameters = p, .response = r}},
        {[&] { NorvAnalytics::sendUserCanNotLoginEventWithParameters(p, r, "denied"); },
         [] { norv_send_user_can_not_login_event("p", "r", "denied"); },
         {.typeId = "15", .parameters = p, .response = r, .error = "denied"}},
        {[] { NorvAnalytics::sendUserLogoutEvent(); }, [] { norv_send_user_logout_event(); },
         {.typeId = "6"}},
        {[] { NorvAnalytics::sendDeviceCustomName("Till"); },
         [] { norv_send_device_custom_name("Till"); },
         {.typeId = "23", .deviceCustomName = "Till"}},
        {[] { NorvAnalytics::sendLocationServiceStatusEventWithValue(2); },
         [] { norv_send_location_service_status_event(2); }, {.typeId = "18", .value = 2.0F}},
        {[] { NorvAnalytics::sendBluetoothStatusEventWithValue(3); },
         [] { norv_send_bluetooth_status_event(3); }, {.typeId = "17", .value = 3.0F}},
        {[] { NorvAnalytics::sendExternalAccessoryBatteryIsLowEvent(); },
         [] { norv_send_external_accessory_battery_is_low_event(); }, {.typeId = "20"}},
        {[] { NorvAnalytics::sendExternalAccessoryBatteryStatusWithValue(16777217); },
         [] { norv_send_external_accessory_battery_status(16777217); },
         {.typeId = "21", .value = 16777216.0F}},
        {[] { NorvAnalytics::sendAppOpenEvent(); }, [] { norv_send_app_open_event(); },
         {.typeId = "2", .value = 1.0F}},
        {[] { NorvAnalytics::sendAppOpenEventWithDeviceName("sc"); },
         [] { norv_send_app_open_event_with_device_name("sc"); },
         {.typeId = "2", .value = 1.0F, .deviceName = "sc"}},
        {[] { NorvAnalytics::sendAppOpenEventWithUsername("ann"); },
         [] { norv_send_app_open_event_with_username("ann", nullptr); },
         {.typeId = "2", .value = 1.0F, .username = "ann"}},
        {[] { NorvAnalytics::sendAppOpenEventWithUsername("ann", "sc"); },
         [] { norv_send_app_open_event_with_username("ann", "sc"); },
         {.typeId = "2", .value = 1.0F, .username = "ann", .deviceName = "sc"}},
        // App close goes under the app-open type; the value tells them apart.
        {[] { NorvAnalytics::sendAppCloseEvent(); }, [] { norv_send_app_close_event(); },
         {.typeId = "2", .value = 0.0F}},
        {[&] { NorvAnalytics::sendDataNotRetrievedEventWithEndpoint("/o", p, r); },
         [] { norv_send_data_not_retrieved_event("/o", "p", "r"); },
         {.typeId = "16", .endpoint = "/o", .parameters = p, .response = r}},
        // Indices without a type (17 and on) are the catalogue test's.
        {[] { NorvAnalytics::sendEventWithType(7, 0.25F, "/e", "x", std::nullopt); },
         [] { norv_send_event_with_type(7, 0.25F, "/e", "x", nullptr); },
         {.typeId = "8", .value = 0.25F, .endpoint = "/e", .parameters = "x"}},
        // A C host says "no end time" with NaN. Elapsed times are checked by the timing test
        // below and, through the C calls, by the Python suite.
        {[&] {
             NorvAnalytics::sendRequestStartTime(t1000, "/t");
             NorvAnalytics::sendRequestEndTime(std::nullopt, "/t", "p", std::nullopt);
         },
         [] {
             norv_send_request_start_time(1000.0, "/t");
             norv_send_request_end_time(NAN, "/t", "p", nullptr);
         },
         {.typeId = "1", .endpoint = "/t", .parameters = "p"}},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const bool appOpen = rows[i].sent.typeId == "2";
        const std::string expected = harness.body(rows[i].sent, appOpen, "store-user-7");
        for (const auto& call : {rows[i].call, rows[i].c}) {
            harness.http->clear();
            call();
            EXPECT_EQ(harness.http->bodies(), std::vector<std::string>{expected}) << "row " << i;
        }
        EXPECT_EQ(harness.http->requests().at(0).url, ReportingHarness::kUrl);
    }
}

TEST(EventCalls, RequestTimingSendsElapsedSecondsOncePerStart) {
    ReportingHarness harness;
    const Date t0 = std::chrono::system_clock::now();
    const auto ms = [](int count) { return std::chrono::milliseconds(count); };
    NorvAnalytics::sendRequestStartTime(t0, "/a");
    NorvAnalytics::sendRequestEndTime(t0 + ms(1500), "/a", "q=1", "ok");
    // Two starts: measured from the second; the second end finds nothing.
    NorvAnalytics::sendRequestStartTime(t0, "/b");
    NorvAnalytics::sendRequestStartTime(t0 + ms(1000), "/b");
    NorvAnalytics::sendRequestEndTime(t0 + ms(1250), "/b", std::nullopt, std::nullopt);
    NorvAnalytics::sendRequestEndTime(t0 + ms(9000), "/b", std::nullopt, std::nullopt);
    // Ignored starts, and an end without a start. A nil end time (value 0) is a row of the table.
    NorvAnalytics::sendRequestStartTime(std::nullopt, "/c");
    NorvAnalytics::sendRequestStartTime(t0, std::nullopt);
    NorvAnalytics::sendRequestEndTime(t0, "/c", std::nullopt, std::nullopt);
    NorvAnalytics::sendRequestEndTime(t0, std::nullopt, std::nullopt, std::nullopt);
    // An end before its start is negative.
    NorvAnalytics::sendRequestStartTime(t0, "/e");
    NorvAnalytics::sendRequestEndTime(t0 - ms(250), "/e", std::nullopt, std::nullopt);

    EXPECT_EQ(harness.http->bodies(),
              (std::vector<std::string>{harness.body({"1", 1.5F, "/a", "q=1", "ok"}),
                                        harness.body({"1", 0.25F, "/b"}),
                                        harness.body({"1", -0.25F, "/e"})}));

    // Starts never ended are bounded: beyond 1,000 endpoints the oldest is forgotten. No start
    // is noted without consent, and a forget clears them.
    harness.http->clear();
    for (int endpoint = 0; endpoint <= 1000; ++endpoint) {
        NorvAnalytics::sendRequestStartTime(t0, "/many-" + std::to_string(endpoint));
    }
    for (const std::string endpoint : {"/many-0", "/many-1000"}) {
        NorvAnalytics::sendRequestEndTime(t0 + ms(500), endpoint, std::nullopt, std::nullopt);
    }
    EXPECT_EQ(harness.http->bodies(), std::vector<std::string>{harness.body({"1", 0.5F, "/many-1000"})});
    NorvAnalytics::setCollectionAllowed(false);
    NorvAnalytics::sendRequestStartTime(t0, "/private");
    NorvAnalytics::setCollectionAllowed(true);
    NorvAnalytics::sendRequestStartTime(t0, "/forgotten");
    NorvAnalytics::forgetDevice();
    harness.http->clear();
    for (const std::string endpoint : {"/private", "/forgotten", "/many-1"}) {
        NorvAnalytics::sendRequestEndTime(t0, endpoint, std::nullopt, std::nullopt);
    }
    EXPECT_EQ(harness.http->bodies(), std::vector<std::string>{});
}

TEST(EventCalls, ManyThreadsLoseNoEvent) {
    ReportingHarness harness;
    constexpr std::size_t kThreads = 8, kPerThread = 300;
    std::vector<std::jthread> threads;
    for (std::size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::string endpoint = "/t" + std::to_string(t);
            for (std::size_t i = 0; i < kPerThread; ++i) {
                NorvAnalytics::sendEventWithPageName(endpoint + "-" + std::to_string(i));
                NorvAnalytics::sendRequestStartTime(std::chrono::system_clock::now(), endpoint);
                NorvAnalytics::sendRequestEndTime(std::chrono::system_clock::now(), endpoint,
                                                  std::nullopt, std::nullopt);
            }
        });
    }
    threads.clear();
    while (harness.http->answerAll(200, "") > 0) {
    }
    const auto bodies = harness.http->bodies();
    EXPECT_EQ(bodies.size(), kThreads * kPerThread * 2);
    std::set<std::string> pages;
    std::copy_if(bodies.begin(), bodies.end(), std::inserter(pages, pages.end()),
                 [](const std::string& body) { return body.find("&type=7&") != std::string::npos; });
    EXPECT_EQ(pages.size(), kThreads * kPerThread);
}

TEST(EventCalls, FlushWaitsForHeldAnswersButNeverWhereAnswersAreHandled) {
    ReportingHarness harness;
    const std::chrono::minutes minute(1);
    NorvAnalytics::sendAppCloseEvent();
    // The answer is held: zero only looks.
    EXPECT_FALSE(NorvAnalytics::flush(std::chrono::milliseconds(0)));
    bool flushed = false;
    std::thread host([&] { flushed = NorvAnalytics::flush(minute); });
    harness.http->failAll();
    host.join();
    EXPECT_TRUE(flushed);
    // Nothing is in flight; on the queue's thread, and a host executor's, false at once.
    MainQueue::main().sync([&] { flushed = NorvAnalytics::flush(minute); });
    EXPECT_FALSE(flushed);
    MainQueue::main().setExecutor([](const MainQueue::Task&) {}, std::this_thread::get_id());
    EXPECT_FALSE(NorvAnalytics::flush(minute));
    MainQueue::main().setExecutor(nullptr);
    EXPECT_TRUE(NorvAnalytics::flush(minute));
}

}  // namespace
}  // namespace NorvAnalytic
