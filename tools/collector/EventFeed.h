#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>

namespace NorvAnalytic::Collector {

// Wakes the page's live streams when anything they show changed: an event was stored, or the
// steering or a refusal changed. Each stream holds a server thread, so only a few may listen.
class EventFeed {
public:
    static constexpr int kMaxListeners = 4;

    // Counts one change and wakes every waiting stream.
    void publish();
    // Waits until the change count passes `seen` or the timeout ends, and returns the count;
    // nothing once the feed is closed.
    std::optional<std::uint64_t> waitPast(std::uint64_t seen, std::chrono::milliseconds timeout);
    // Ends every wait for good, so that the server's threads can be joined.
    void close();

    // Takes one of the listener places; false when all are taken.
    bool enter();
    void leave();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t changes_ = 1;
    int listeners_ = 0;
    bool closed_ = false;
};

}  // namespace NorvAnalytic::Collector
