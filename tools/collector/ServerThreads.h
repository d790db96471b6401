#pragma once

#include <httplib.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace NorvAnalytic::Collector {

// The server's threads, one per connection being served: named, with signals blocked, and at
// most `maxWaiting` accepted connections waiting for one (beyond, the listening thread waits,
// and the kernel's backlog holds the rest).
class ServerThreads final : public httplib::TaskQueue {
public:
    ServerThreads(std::size_t count, std::size_t maxWaiting);
    ~ServerThreads() override;

    void enqueue(std::function<void()> task) override;
    void shutdown() override;

private:
    void work();

    std::size_t maxWaiting_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> tasks_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace NorvAnalytic::Collector
