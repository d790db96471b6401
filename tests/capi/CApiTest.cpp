#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/norv.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "delivery/QueueFile.h"
#include "facade/CollectionConsent.h"
#include "support/HostLoop.h"
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
        ReportingHarness::waitForDiagnostics();
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

// With a damaged queue file, a C sink that answers the line about it with a call of ours: the
// calls that turn the queue on and start the SDK, which find the damage while the queue's file
// lock is held, return, and so does the sink's call.
TEST(CApi, ASinkThatCallsUsWhenTheQueueFileIsDamagedHoldsNothingUp) {
    const std::filesystem::path dataHome =
        std::filesystem::temp_directory_path() / ("norv-capi-" + std::to_string(::getpid()));
    ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
    {
        ReportingHarness harness;
        struct Row {
            const char* name;
            void (*call)();
        };
        for (const Row row :
             {Row{"norv_set_persistent_queue(0)", [] { norv_set_persistent_queue(0); }},
              Row{"norv_forget_device()", [] { norv_forget_device(); }}}) {
            SCOPED_TRACE(row.name);
            // Opened and turned off again, so that whatever the last row's call left, the file
            // is closed and deleted by the hand-over's thread before the damaged one is made.
            const std::filesystem::path queueFile = QueueFile::pathFor("");
            norv_set_persistent_queue(1);
            norv_set_persistent_queue(0);
            for (int wait = 0; std::filesystem::exists(queueFile) && wait < 10'000; ++wait) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            // The damaged file is there before the queue is turned on and the SDK started.
            std::filesystem::create_directories(queueFile.parent_path());
            std::ofstream(queueFile) << std::string(4096, 'z');
            struct Heard {
                void (*call)();
                std::atomic<bool> once{false};
                std::promise<void> answered;
            } heard{row.call, {false}, {}};
            norv_set_diagnostics_sink(
                [](int, const char* line, void* user) {
                    auto* heard = static_cast<Heard*>(user);
                    if (std::strstr(line, "moved aside") != nullptr &&
                        !heard->once.exchange(true)) {
                        heard->call();
                        heard->answered.set_value();
                    }
                },
                &heard);
            Testing::endsWithin(std::chrono::seconds(30), row.name, [&] {
                norv_set_persistent_queue(1);
                ReportingHarness::withoutNewTimer(
                    [] { norv_init_with_key(ReportingHarness::kKey); });
                heard.answered.get_future().wait();
            });
            norv_set_diagnostics_sink(nullptr, nullptr);
            NorvAnalytics::sharedController().setUrlString(std::string(ReportingHarness::kUrl));
        }
    }
    ::unsetenv("XDG_DATA_HOME");
    std::filesystem::remove_all(dataHome);
}

TEST(CApi, AnyNonZeroIntAllowsCollection) {
    // The int given, and whether collection is allowed after it; the last row leaves it allowed.
    for (const auto& [given, allowed] : {std::pair{0, false}, std::pair{2, true},
                                         std::pair{0, false}, std::pair{-1, true}}) {
        norv_set_collection_allowed(given);
        EXPECT_EQ(CollectionConsent::allowed(), allowed) << "given " << given;
    }
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
