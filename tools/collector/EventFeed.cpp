#include "EventFeed.h"

namespace NorvAnalytic::Collector {

void EventFeed::publish() {
    {
        std::lock_guard lock(mutex_);
        ++changes_;
    }
    changed_.notify_all();
}

std::optional<std::uint64_t> EventFeed::waitPast(std::uint64_t seen,
                                                 std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return closed_ || changes_ > seen; });
    if (closed_) {
        return std::nullopt;
    }
    return changes_;
}

void EventFeed::close() {
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
    }
    changed_.notify_all();
}

bool EventFeed::enter() {
    std::lock_guard lock(mutex_);
    if (closed_ || listeners_ >= kMaxListeners) {
        return false;
    }
    ++listeners_;
    return true;
}

void EventFeed::leave() {
    std::lock_guard lock(mutex_);
    --listeners_;
}

}  // namespace NorvAnalytic::Collector
