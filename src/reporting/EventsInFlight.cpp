#include "reporting/EventsInFlight.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>

namespace NorvAnalytic {

namespace {

// Events are numbered in order; one flag each, from the oldest still open to the newest, so
// its length is bounded by how long the HTTP client may hold a request.
struct Registry {
    std::mutex mutex;
    std::condition_variable ended;
    std::deque<bool> endedFromOldestOpen;
    std::uint64_t oldestOpen = 0;
};

Registry& registry() {
    // Never destroyed: tickets may still end while the process exits.
    static auto* instance = new Registry;
    return *instance;
}

// Far enough for any host, near enough that adding it to now() cannot overflow.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24 * 365);

}  // namespace

EventsInFlight::Ticket::~Ticket() {
    if (number_ == kEnded) {
        return;
    }
    Registry& state = registry();
    {
        std::lock_guard lock(state.mutex);
        auto& flags = state.endedFromOldestOpen;
        flags[number_ - state.oldestOpen] = true;
        if (!flags.front()) {
            return;
        }
        while (!flags.empty() && flags.front()) {
            flags.pop_front();
            ++state.oldestOpen;
        }
    }
    state.ended.notify_all();
}

EventsInFlight::Ticket EventsInFlight::begin() {
    Registry& state = registry();
    std::uint64_t number = 0;
    {
        std::lock_guard lock(state.mutex);
        number = state.oldestOpen + state.endedFromOldestOpen.size();
        state.endedFromOldestOpen.push_back(false);
    }
    return Ticket(number);
}

bool EventsInFlight::waitForEarlier(std::chrono::milliseconds timeout) {
    Registry& state = registry();
    std::unique_lock lock(state.mutex);
    const std::uint64_t limit = state.oldestOpen + state.endedFromOldestOpen.size();
    const auto earlierEnded = [&] { return state.oldestOpen >= limit; };
    if (timeout <= std::chrono::milliseconds::zero()) {
        return earlierEnded();
    }
    return state.ended.wait_for(lock, std::min(timeout, kLongestWait), earlierEnded);
}

}  // namespace NorvAnalytic
