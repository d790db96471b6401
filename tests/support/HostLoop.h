#pragma once

#include <NorvAnalytic/MainQueue.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace NorvAnalytic::Testing {

// A host's UI loop on a thread of its own, as Qt's or GLib's would be: it runs the jobs posted
// to it, in order, until it is destroyed.
class HostLoop {
public:
    HostLoop();
    ~HostLoop();
    HostLoop(const HostLoop&) = delete;
    HostLoop& operator=(const HostLoop&) = delete;

    void post(MainQueue::Task job);
    // An executor for MainQueue::setExecutor that posts to this loop.
    MainQueue::Executor executor();
    std::thread::id id() const { return thread_.get_id(); }

private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<MainQueue::Task> jobs_;
    bool stopping_ = false;
    std::thread thread_;
};

// Runs f on a thread of its own and returns once it ended. One that hangs (a deadlock) cannot
// be joined or ended: it is reported as `what` and the process ends, failing the suite.
void endsWithin(std::chrono::seconds limit, const char* what, std::function<void()> f);

}  // namespace NorvAnalytic::Testing
