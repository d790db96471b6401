#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <gtest/gtest.h>

#include <deque>
#include <thread>

#include "support/ReportingHarness.h"

namespace NorvAnalytic {
namespace {

using std::chrono::milliseconds;
constexpr milliseconds kLong = std::chrono::seconds(60);

TEST(Flush, WaitsForAnswersSentBeforeItButNeverOnTheMainQueuesThread) {
    Testing::ReportingHarness harness;
    NorvAnalytics::sendEventWithPageName("Orders");
    NorvAnalytics::sendAppCloseEvent();
    // Zero or less only looks; the answers are held.
    EXPECT_FALSE(NorvAnalytics::flush(milliseconds(0)));
    EXPECT_FALSE(NorvAnalytics::flush(milliseconds(-5)));
    EXPECT_FALSE(NorvAnalytics::flush(milliseconds(20)));

    bool flushed = false;
    std::thread host([&] { flushed = NorvAnalytics::flush(kLong); });
    harness.http->answerAll(500, "");
    host.join();
    EXPECT_TRUE(flushed);
    // Both refused first sends are kept; the next tick resends one, which fails.
    ASSERT_EQ(harness.savedCount(), 2U);
    harness.tick();
    host = std::thread([&] { flushed = NorvAnalytics::flush(kLong); });
    harness.http->failAll();
    host.join();
    EXPECT_TRUE(flushed);

    // Nothing is in flight, yet on the thread that handles answers flush says false at once.
    MainQueue::main().sync([&] { flushed = NorvAnalytics::flush(kLong); });
    EXPECT_FALSE(flushed);
    std::deque<MainQueue::Task> handedOver;
    MainQueue::main().setExecutor([&](MainQueue::Task task) { handedOver.push_back(task); });
    EXPECT_FALSE(NorvAnalytics::flush(kLong));
    MainQueue::main().setExecutor(nullptr);
    EXPECT_TRUE(handedOver.empty());
    EXPECT_TRUE(NorvAnalytics::flush(kLong));
}

}  // namespace
}  // namespace NorvAnalytic
