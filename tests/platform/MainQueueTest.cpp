#include <NorvAnalytic/MainQueue.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/MainQueueClock.h"
#include "platform/ManualClock.h"

namespace NorvAnalytic {
namespace {

// A host UI loop: a thread that runs whatever the executor hands it, in order.
class HostLoop {
public:
    HostLoop() : thread_([this] { run(); }) {}
    ~HostLoop() {
        post(nullptr);
        thread_.join();
    }
    void post(MainQueue::Task task) {
        {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        ready_.notify_one();
    }
    std::thread::id id() const { return thread_.get_id(); }

private:
    void run() {
        for (;;) {
            std::unique_lock lock(mutex_);
            ready_.wait(lock, [this] { return !tasks_.empty(); });
            MainQueue::Task task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            if (!task) {
                return;
            }
            task();
        }
    }
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<MainQueue::Task> tasks_;
    std::thread thread_;
};

TEST(MainQueueTest, TimersFireInOrderOnAManualClockUntilInvalidated) {
    auto clock = std::make_shared<ManualClock>();
    auto& queue = MainQueue::main();
    setMainQueueClock(clock);
    std::vector<std::string> fired;  // touched on the queue only
    auto everySecond = queue.scheduledTimer(std::chrono::seconds(1), true,
                                            [&] { fired.push_back("second"); });
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
    clock->advance(std::chrono::seconds(5));
    queue.sync([&] { EXPECT_EQ(fired.size(), 4U); });
    setMainQueueClock(nullptr);
}

TEST(MainQueueTest, AHostExecutorRunsEveryTaskOnItsThreadInOrder) {
    HostLoop host;
    auto& queue = MainQueue::main();
    queue.setExecutor([&host](MainQueue::Task task) { host.post(std::move(task)); });
    std::vector<int> order;  // touched on the queue only
    for (int i = 0; i < 100; ++i) {
        queue.async([&order, i] { order.push_back(i); });
    }
    bool ranOnHost = false;
    bool nestedRanInline = false;
    queue.sync([&] {
        ranOnHost = std::this_thread::get_id() == host.id() && queue.isCurrent();
        queue.sync([&] { nestedRanInline = true; });
    });
    EXPECT_TRUE(ranOnHost);
    EXPECT_TRUE(nestedRanInline);
    EXPECT_FALSE(queue.isCurrent());
    queue.sync([&] {
        ASSERT_EQ(order.size(), 100U);
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
        }
    });
    queue.setExecutor(nullptr);
    queue.sync([&] { EXPECT_NE(std::this_thread::get_id(), host.id()); });
}

}  // namespace
}  // namespace NorvAnalytic
