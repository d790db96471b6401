#include "reporting/EventsInFlight.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>

namespace NorvAnalytic {

namespace {

// As many entries as requests alive, which the HTTP client bounds.
struct Registry {
    std::mutex mutex;
    std::condition_variable ended;
    std::set<std::uint64_t> open;
    std::uint64_t next = 0;
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
    Registry& state = registry();
    {
        std::lock_guard lock(state.mutex);
        state.open.erase(number_);
    }
    state.ended.notify_all();
}

std::shared_ptr<EventsInFlight::Ticket> EventsInFlight::begin() {
    Registry& state = registry();
    std::lock_guard lock(state.mutex);
    const std::uint64_t number = state.next++;
    state.open.insert(number);
    return std::make_shared<Ticket>(number);
}

bool EventsInFlight::waitForEarlier(std::chrono::milliseconds timeout) {
    Registry& state = registry();
    std::unique_lock lock(state.mutex);
    const std::uint64_t limit = state.next;
    const auto earlierEnded = [&] { return state.open.empty() || *state.open.begin() >= limit; };
    if (timeout <= std::chrono::milliseconds::zero()) {
        return earlierEnded();
    }
    return state.ended.wait_for(lock, std::min(timeout, kLongestWait), earlierEnded);
}

}  // namespace NorvAnalytic
