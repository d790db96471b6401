#include "ServerThreads.h"

#include "platform/SdkThread.h"

namespace NorvAnalytic::Collector {

ServerThreads::ServerThreads(std::size_t count, std::size_t maxWaiting) : maxWaiting_(maxWaiting) {
    threads_.reserve(count);
    for (std::size_t index = 0; index < count; ++index) {
        threads_.push_back(startSdkThread("norv-serve", [this] { work(); }));
    }
}

ServerThreads::~ServerThreads() { shutdown(); }

void ServerThreads::enqueue(std::function<void()> task) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return stopping_ || tasks_.size() < maxWaiting_; });
    tasks_.push_back(std::move(task));
    changed_.notify_all();
}

void ServerThreads::shutdown() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) {
        if (thread.joinable()) {
            thread.join();
        }
    }
}

void ServerThreads::work() {
    while (true) {
        std::function<void()> task;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
            if (tasks_.empty()) {
                return;
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        changed_.notify_all();
        try {
            task();
        } catch (...) {
            // One connection that failed must not take its thread with it.
        }
    }
}

}  // namespace NorvAnalytic::Collector
