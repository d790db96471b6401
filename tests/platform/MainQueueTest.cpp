#include <NorvAnalytic/MainQueue.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <vector>

#include "platform/MainQueueClock.h"
#include "platform/ManualClock.h"

namespace NorvAnalytic {
namespace {

TEST(MainQueueTest, TimersFireInOrderOnAManualClockUntilInvalidated) {
    auto clock = std::make_shared<ManualClock>();
    auto& queue = MainQueue::main();
    setMainQueueClock(clock);
    std::vector<std::string> fired;  // touched on the queue only
    auto everySecond =
        queue.scheduledTimer(std::chrono::seconds(1), true, [&] { fired.push_back("second"); });
    auto once = queue.scheduledTimer(std::chrono::milliseconds(1500), false,
                                     [&] { fired.push_back("once"); });
    clock->advance(std::chrono::milliseconds(999));
    clock->advance(std::chrono::milliseconds(1));
    clock->advance(std::chrono::seconds(1));
    // Three seconds late: a repeating timer fires once and keeps its rhythm.
    clock->advance(std::chrono::seconds(3));
    queue.sync([&] {
        EXPECT_EQ(fired, (std::vector<std::string>{"second", "once", "second", "second"}));
    });
    EXPECT_FALSE(once->isValid());
    everySecond->invalidate();
    EXPECT_FALSE(everySecond->isValid());
    clock->advance(std::chrono::seconds(5));
    queue.sync([&] { EXPECT_EQ(fired.size(), 4U); });
    setMainQueueClock(nullptr);
}

TEST(MainQueueTest, AHostExecutorRunsEveryTaskInOrderAsTheMainQueue) {
    auto& queue = MainQueue::main();
    std::vector<int> order;  // touched on the queue only
    queue.setExecutor([&order](MainQueue::Task task) {
        order.push_back(-1);
        task();
    });
    for (int i = 0; i < 100; i += 2) {
        queue.async([&order, i] { order.push_back(i); });
    }
    bool nestedRanInline = false;
    queue.sync([&] {
        EXPECT_TRUE(queue.isCurrent());
        queue.sync([&] { nestedRanInline = true; });
        ASSERT_EQ(order.size(), 101U);
        for (std::size_t i = 0; i < 100; ++i) {
            EXPECT_EQ(order[i], i % 2 == 0 ? -1 : static_cast<int>(i) - 1);
        }
    });
    EXPECT_TRUE(nestedRanInline);
    EXPECT_FALSE(queue.isCurrent());
    queue.setExecutor(nullptr);
    queue.sync([&] {
        EXPECT_EQ(order.size(), 101U);
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        EXPECT_STREQ(name, "norv-main");
    });
}

}  // namespace
}  // namespace NorvAnalytic
