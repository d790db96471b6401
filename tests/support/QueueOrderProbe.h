#pragma once

#include <NorvAnalytic/MainQueue.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace NorvAnalytic::Testing {

// Main-queue tasks that note the order they ran in and whether two ever ran at once, for the
// tests of a change of executor: some left with the old one, and newer ones added all along
// from another thread while it changes. Header-only: the adapters' suites link the SDK alone.
class QueueOrderProbe {
public:
    QueueOrderProbe() = default;
    ~QueueOrderProbe() { stopAdding(); }
    QueueOrderProbe(const QueueOrderProbe&) = delete;
    QueueOrderProbe& operator=(const QueueOrderProbe&) = delete;

    MainQueue::Task task(int number,
                         std::chrono::milliseconds takes = std::chrono::milliseconds(2)) {
        return [this, number, takes] {
            overlapped_ = overlapped_ || running_.fetch_add(1) > 0;
            std::this_thread::sleep_for(takes);
            {
                const std::lock_guard lock(mutex_);
                order_.push_back(number);
            }
            running_.fetch_sub(1);
        };
    }
    // Tasks 0 to count - 1, queued now.
    void queue(int count) {
        for (int number = 0; number < count; ++number) {
            MainQueue::main().async(task(number));
        }
    }
    // From another thread, a task every millisecond, numbered from 1000, until stopAdding().
    void startAdding() {
        adder_ = std::thread([this] {
            for (int number = 1000; adding_; ++number) {
                MainQueue::main().async(task(number));
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    // Stops adding and returns once every task queued so far has run.
    void stopAdding() {
        adding_ = false;
        if (adder_.joinable()) {
            adder_.join();
            std::thread([] { MainQueue::main().sync([] {}); }).join();
        }
    }
    bool overlapped() const { return overlapped_; }
    // Whether at least `count` ran, all in the order queued.
    bool ranInOrder(std::size_t count) {
        const std::lock_guard lock(mutex_);
        return order_.size() >= count && std::is_sorted(order_.begin(), order_.end());
    }

private:
    std::atomic<int> running_ = 0;
    std::atomic<bool> overlapped_ = false;
    std::atomic<bool> adding_ = true;
    std::mutex mutex_;
    std::vector<int> order_;
    std::thread adder_;
};

}  // namespace NorvAnalytic::Testing
