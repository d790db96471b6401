#include "support/HostLoop.h"

#include <cstdio>
#include <cstdlib>
#include <future>

namespace NorvAnalytic::Testing {

HostLoop::HostLoop()
    : thread_([this] {
          std::unique_lock lock(mutex_);
          while (true) {
              ready_.wait(lock, [&] { return stopping_ || !jobs_.empty(); });
              if (jobs_.empty()) {
                  return;
              }
              MainQueue::Task job = std::move(jobs_.front());
              jobs_.pop_front();
              lock.unlock();
              job();
              lock.lock();
          }
      }) {}

HostLoop::~HostLoop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    ready_.notify_one();
    thread_.join();
}

void HostLoop::post(MainQueue::Task job) {
    // Notified under the lock: a test may destroy the loop as soon as this job has run, and a
    // notify after the unlock could touch a condition variable that is gone.
    const std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    ready_.notify_one();
}

MainQueue::Executor HostLoop::executor() {
    return [this](MainQueue::Task task) { post(std::move(task)); };
}

void endsWithin(std::chrono::seconds limit, const char* what, std::function<void()> f) {
    auto ended = std::async(std::launch::async, std::move(f));
    if (ended.wait_for(limit) != std::future_status::ready) {
        std::fprintf(stderr, "never ended: %s\n", what);
        std::fflush(stderr);
        std::_Exit(1);
    }
    ended.get();
}

}  // namespace NorvAnalytic::Testing
