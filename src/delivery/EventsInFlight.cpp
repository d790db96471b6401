#include "delivery/EventsInFlight.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <limits>
#include <mutex>
#include <new>
#include <utility>

#include <pthread.h>

namespace NorvAnalytic {

namespace {

// Events are numbered in order; one flag each, from the oldest still open to the newest, so
// its length is bounded by how long the HTTP client may hold a request.
struct Registry {
    std::mutex mutex;
    std::condition_variable ended;
    std::deque<bool> endedFromOldestOpen;
    std::uint64_t oldestOpen = 0;
    // The nearest event number a waiter waits to see ended: the others end without a wake.
    std::uint64_t wakeAt = std::numeric_limits<std::uint64_t>::max();
    // Events a bound dropped, in all and as the last flush saw them.
    std::uint64_t lost = 0;
    std::uint64_t lostSeen = 0;
};

Registry& registry();

void beforeFork() { registry().mutex.lock(); }

void afterForkInParent() { registry().mutex.unlock(); }

// The child's flush waits for the child's events only: the parent's are the parent's to send.
void afterForkInChild() {
    Registry& state = registry();
    state.oldestOpen += state.endedFromOldestOpen.size();
    state.endedFromOldestOpen.clear();
    state.wakeAt = std::numeric_limits<std::uint64_t>::max();
    new (&state.ended) std::condition_variable;
    state.mutex.unlock();
}

Registry& registry() {
    // Never destroyed: tickets may still end while the process exits.
    static auto* instance = [] {
        pthread_atfork(&beforeFork, &afterForkInParent, &afterForkInChild);
        return new Registry;
    }();
    return *instance;
}

// Far enough for any host, near enough that adding it to now() cannot overflow.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24 * 365);

}  // namespace

void EventsInFlight::Ticket::end() noexcept {
    if (number_ == kEnded) {
        return;
    }
    const std::uint64_t number = std::exchange(number_, kEnded);
    Registry& state = registry();
    {
        std::lock_guard lock(state.mutex);
        // A ticket from before a fork, in the child: no longer waited for.
        if (number < state.oldestOpen) {
            return;
        }
        auto& flags = state.endedFromOldestOpen;
        flags[number - state.oldestOpen] = true;
        if (!flags.front()) {
            return;
        }
        while (!flags.empty() && flags.front()) {
            flags.pop_front();
            ++state.oldestOpen;
        }
        if (state.oldestOpen < state.wakeAt) {
            return;
        }
        state.wakeAt = std::numeric_limits<std::uint64_t>::max();
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

void EventsInFlight::noteLost(std::uint64_t count) {
    Registry& state = registry();
    std::lock_guard lock(state.mutex);
    state.lost += count;
}

bool EventsInFlight::waitForEarlier(std::chrono::milliseconds timeout) {
    Registry& state = registry();
    std::unique_lock lock(state.mutex);
    const std::uint64_t limit = state.oldestOpen + state.endedFromOldestOpen.size();
    const auto earlierEnded = [&] { return state.oldestOpen >= limit; };
    const auto noneLost = [&] {
        const bool none = state.lost == state.lostSeen;
        state.lostSeen = state.lost;
        return none;
    };
    if (timeout <= std::chrono::milliseconds::zero()) {
        const bool ended = earlierEnded();
        return noneLost() && ended;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::min(timeout, kLongestWait);
    while (!earlierEnded()) {
        // Set again after each wake: a wake for another waiter's nearer limit clears it.
        state.wakeAt = std::min(state.wakeAt, limit);
        if (state.ended.wait_until(lock, deadline) == std::cv_status::timeout) {
            const bool ended = earlierEnded();
            return noneLost() && ended;
        }
    }
    return noneLost();
}

}  // namespace NorvAnalytic
