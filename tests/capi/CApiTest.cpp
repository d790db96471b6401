#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/norv.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/ReportingHarness.h"

namespace NorvAnalytic {
namespace {

using Testing::ReportingHarness;

// Every line the C sink receives.
struct Lines {
    std::mutex mutex;
    std::vector<std::pair<int, std::string>> lines;

    static void sink(int level, const char* line, void* user) {
        auto* self = static_cast<Lines*>(user);
        const std::lock_guard lock(self->mutex);
        self->lines.emplace_back(level, line);
    }
};

TEST(CApi, EachEventCallSendsWhatItsCppTwinSends) {
    ReportingHarness harness;
    norv_save_store_user_id("store-user-7");
    const std::vector<std::pair<std::function<void()>, Testing::ExpectedEvent>> rows = {
        {[] { norv_send_username("ann"); }, {.username = "ann"}},
        {[] { norv_send_warehouse("north"); }, {.warehouse = "north"}},
        {[] { norv_send_error("boom"); }, {.error = "boom"}},
        {[] { norv_send_device_name("sc"); }, {.deviceName = "sc"}},
        {[] { norv_send_device_custom_name("Till"); }, {.typeId = "23", .deviceCustomName = "Till"}},
        {[] { norv_send_event_with_player_id("p-1"); }, {.typeId = "22", .playerId = "p-1"}},
        {[] { norv_send_event_with_page_name("Orders"); }, {.typeId = "7", .pageName = "Orders"}},
        {[] { norv_send_user_login_event("p", "r", "ann", "n"); },
         {.typeId = "5", .parameters = "p", .response = "r", .username = "ann", .warehouse = "n"}},
        {[] { norv_send_user_login_event("p", nullptr, nullptr, "n"); },
         {.typeId = "5", .parameters = "p", .warehouse = "n"}},
        {[] { norv_send_user_can_not_login_event("p", "r", "denied"); },
         {.typeId = "15", .parameters = "p", .response = "r", .error = "denied"}},
        {[] { norv_send_user_logout_event(); }, {.typeId = "6"}},
        {[] { norv_send_location_service_status_event(2); }, {.typeId = "18", .value = 2.0F}},
        {[] { norv_send_bluetooth_status_event(3); }, {.typeId = "17", .value = 3.0F}},
        {[] { norv_send_external_accessory_battery_is_low_event(); }, {.typeId = "20"}},
        {[] { norv_send_external_accessory_battery_status(16); }, {.typeId = "21", .value = 16.0F}},
        {[] { norv_send_app_open_event(); }, {.typeId = "2", .value = 1.0F}},
        {[] { norv_send_app_open_event_with_device_name("sc"); },
         {.typeId = "2", .value = 1.0F, .deviceName = "sc"}},
        {[] { norv_send_app_open_event_with_username("ann", "sc"); },
         {.typeId = "2", .value = 1.0F, .username = "ann", .deviceName = "sc"}},
        {[] { norv_send_app_close_event(); }, {.typeId = "2", .value = 0.0F}},
        {[] { norv_send_data_not_retrieved_event("/o", "p", "r"); },
         {.typeId = "16", .endpoint = "/o", .parameters = "p", .response = "r"}},
        {[] { norv_send_event_with_type(7, 0.25F, "/e", nullptr, "r"); },
         {.typeId = "8", .value = 0.25F, .endpoint = "/e", .response = "r"}},
        {[] {
             norv_send_request_start_time(1000.0, "/t");
             norv_send_request_end_time(1002.5, "/t", "p", nullptr);
         },
         {.typeId = "1", .value = 2.5F, .endpoint = "/t", .parameters = "p"}},
        {[] {
             norv_send_request_start_time(1000.0, "/t");
             norv_send_request_end_time(NAN, "/t", nullptr, nullptr);
         },
         {.typeId = "1", .endpoint = "/t"}},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        harness.http->clear();
        rows[i].first();
        const bool appOpen = rows[i].second.typeId == "2";
        EXPECT_EQ(harness.http->bodies(),
                  std::vector<std::string>{harness.body(rows[i].second, appOpen, "store-user-7")})
            << "row " << i;
    }
}

TEST(CApi, BadArgumentsAreSaidOnTheSinkAndChangeNothing) {
    ReportingHarness harness;
    Lines received;
    norv_set_diagnostics_sink(&Lines::sink, &received);
    std::array<char, 8> buffer{'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
    // Each bad call, and the start of the line it must give.
    const std::vector<std::pair<std::function<void()>, std::string>> rows = {
        {[] { norv_init_with_key(nullptr); }, "norv_init_with_key: the key is NULL"},
        {[] { norv_set_main_bundle(nullptr, "9", "9"); }, "norv_set_main_bundle: the identifier"},
        {[] { EXPECT_EQ(norv_set_collection_server_host(nullptr), 0); },
         "norv_set_collection_server_host: the host is NULL"},
        {[&] { EXPECT_EQ(norv_get_uuid(nullptr, buffer.size()), 0U); },
         "norv_get_uuid: the buffer is NULL"},
        {[] { norv_send_request_start_time(1000.0, nullptr); },
         "norv_send_request_start_time: the endpoint is NULL"},
        {[] { norv_send_request_start_time(1e300, "/t"); }, "norv_send_request_start_time: the start"},
        {[] { norv_send_request_start_time(NAN, "/t"); }, "norv_send_request_start_time: the start"},
        {[] { norv_send_request_end_time(-1e300, "/t", nullptr, nullptr); },
         "norv_send_request_end_time: the end time"},
        {[] { norv_send_request_end_time(1.0, nullptr, nullptr, nullptr); },
         "norv_send_request_end_time: the endpoint"},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        {
            const std::lock_guard lock(received.mutex);
            received.lines.clear();
        }
        rows[i].first();
        const std::lock_guard lock(received.mutex);
        ASSERT_EQ(received.lines.size(), 1U) << "row " << i;
        EXPECT_EQ(received.lines[0].first, NORV_DIAGNOSTIC_WARNING) << "row " << i;
        EXPECT_EQ(received.lines[0].second.rfind(rows[i].second, 0), 0U)
            << "row " << i << ": " << received.lines[0].second;
    }
    EXPECT_EQ(NorvAnalytics::sharedController().key(), ReportingHarness::kKey);
    EXPECT_EQ(buffer[0], 'x');
    // No end was reported for "/t" above: the bad start left nothing to end.
    norv_send_request_end_time(2.0, "/t", nullptr, nullptr);
    EXPECT_TRUE(harness.http->bodies().empty());

    // The SDK's own lines reach the C sink too, and a NULL sink ends them all.
    EXPECT_EQ(norv_set_collection_server_host("no host/"), 0);
    norv_set_diagnostics_sink(nullptr, nullptr);
    norv_init_with_key(nullptr);
    const std::lock_guard lock(received.mutex);
    ASSERT_EQ(received.lines.size(), 2U);
    EXPECT_NE(received.lines[1].second.find("no host/"), std::string::npos);
}

TEST(CApi, TheUuidIsWrittenAsSnprintfWrites) {
    ReportingHarness harness;
    const std::string uuid = harness.deviceUUID();
    ASSERT_EQ(uuid.size(), 36U);
    std::array<char, 64> buffer{};
    buffer.fill('x');
    EXPECT_EQ(norv_get_uuid(nullptr, 0), 36U);
    EXPECT_EQ(norv_get_uuid(buffer.data(), 0), 36U);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(norv_get_uuid(buffer.data(), 9), 36U);
    EXPECT_EQ(std::string(buffer.data()), uuid.substr(0, 8));
    EXPECT_EQ(norv_get_uuid(buffer.data(), 37), 36U);
    EXPECT_EQ(std::string(buffer.data()), uuid);
    EXPECT_EQ(buffer[37], 'x');
}

}  // namespace
}  // namespace NorvAnalytic
