#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/MainQueue.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <string>
#include <vector>

#include "platform/MainQueueClock.h"
#include "platform/ManualClock.h"

namespace NorvAnalytic {
namespace {

using Lines = std::vector<std::string>;

TEST(MainQueueTest, TimersFireInOrderOnAManualClockUntilInvalidated) {
    auto clock = std::make_shared<ManualClock>();
    auto& queue = MainQueue::main();
    setMainQueueClock(clock);
    Lines fired;  // touched on the queue only
    auto everySecond =
        queue.scheduledTimer(std::chrono::seconds(1), true, [&] { fired.push_back("second"); });
    auto once = queue.scheduledTimer(std::chrono::milliseconds(1500), false,
                                     [&] { fired.push_back("once"); });
    clock->advance(std::chrono::milliseconds(999));
    clock->advance(std::chrono::milliseconds(1));
    clock->advance(std::chrono::seconds(1));
    // Three seconds late: a repeating timer fires once and keeps its rhythm.
    clock->advance(std::chrono::seconds(3));
    queue.sync([&] { EXPECT_EQ(fired, (Lines{"second", "once", "second", "second"})); });
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
    std::vector<int> expected;
    for (int i = 0; i < 100; i += 2) {
        queue.async([&order, i] { order.push_back(i); });
        expected.insert(expected.end(), {-1, i});
    }
    expected.push_back(-1);  // the sync below goes through the executor too
    bool nestedRanInline = false;
    queue.sync([&] {
        EXPECT_TRUE(queue.isCurrent());
        queue.sync([&] { nestedRanInline = true; });
        EXPECT_EQ(order, expected);
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

TEST(MainQueueTest, AnAlertTapDismissesThenRunsTheHandlerOnTheMainQueueBeforeReturning) {
    auto alert = AlertController::alertControllerWithTitle("New Update Available!", std::nullopt,
                                                           AlertControllerStyle::Alert);
    Lines runs;  // written on the main queue, read after a tap returned
    alert->addAction(AlertAction::actionWithTitle(
        "Update", AlertActionStyle::Default, [&runs, shown = alert.get()](const AlertAction& a) {
            runs.push_back(a.title() + (MainQueue::main().isCurrent() ? " on queue" : "") +
                           (shown->isOnScreen() ? " on screen" : ""));
        }));
    alert->addAction(AlertAction::actionWithTitle("Cancel", AlertActionStyle::Cancel, nullptr));
    alert->setOnScreen(true);
    alert->tapActionAtIndex(2);
    EXPECT_TRUE(alert->isOnScreen());
    alert->tapActionAtIndex(1);
    EXPECT_FALSE(alert->isOnScreen());
    alert->setOnScreen(true);
    alert->tapActionAtIndex(0);
    EXPECT_EQ(runs, Lines{"Update on queue"});
    EXPECT_FALSE(alert->isOnScreen());
}

}  // namespace
}  // namespace NorvAnalytic
