#include "events/SavedEvents.h"

#include <atomic>
#include <string>

#include "events/EventTable.h"
#include "mainqueue/MainQueueCheck.h"
#include "platform/Diagnostics.h"

namespace NorvAnalytic {

namespace {

std::atomic<std::size_t> maxEvents{SavedEvents::kDefaultMaxEvents};
std::atomic<std::size_t> maxBytes{SavedEvents::kDefaultMaxBytes};
std::atomic<std::uint64_t> dropped{0};

// The list as the last append left it; main queue only. The host may change the list itself,
// so the byte total is trusted only while the list still looks as we left it.
struct Seen {
    std::size_t size = 0;
    const Event* front = nullptr;
    const Event* back = nullptr;
    std::size_t bytes = 0;
    bool dropping = false;
};

Seen& seen() {
    static Seen* state = new Seen;
    return *state;
}

bool unchanged(const Seen& state, const std::vector<std::shared_ptr<Event>>& events) {
    return events.size() == state.size && (events.empty() || (events.front().get() == state.front &&
                                                              events.back().get() == state.back));
}

std::size_t totalBytes(const std::vector<std::shared_ptr<Event>>& events) {
    std::size_t bytes = 0;
    for (const auto& event : events) {
        bytes += event ? SavedEvents::bytes(*event) : 0;
    }
    return bytes;
}

}  // namespace

std::size_t SavedEvents::bytes(const Event& event) {
    // A short text lives inside the string itself; a longer one owns a heap block.
    static const std::size_t inPlace = std::string().capacity();
    std::size_t bytes = sizeof(Event);
    for (const auto member : EventTable::textMembers()) {
        const Text& text = event.*member;
        if (text && text->capacity() > inPlace) {
            bytes += text->capacity() + 1;
        }
    }
    return bytes;
}

void SavedEvents::setLimits(std::size_t events, std::size_t bytes) {
    maxEvents.store(events, std::memory_order_relaxed);
    maxBytes.store(bytes, std::memory_order_relaxed);
}

SavedEvents::Appended SavedEvents::append(std::shared_ptr<Event> event) {
    assertOnMainQueue();
    auto& events = Event::savedEvents();
    Seen& state = seen();
    if (!unchanged(state, events)) {
        state.bytes = totalBytes(events);
    }
    state.bytes += event ? bytes(*event) : 0;
    events.push_back(std::move(event));

    const std::size_t eventLimit = maxEvents.load(std::memory_order_relaxed);
    const std::size_t byteLimit = maxBytes.load(std::memory_order_relaxed);
    std::size_t drop = 0;
    for (std::size_t bytesLeft = state.bytes;
         drop < events.size() && (events.size() - drop > eventLimit || bytesLeft > byteLimit);
         ++drop) {
        bytesLeft -= events[drop] ? bytes(*events[drop]) : 0;
        state.bytes = bytesLeft;
    }
    const bool kept = drop < events.size();
    events.erase(events.begin(), events.begin() + drop);
    state.size = events.size();
    state.front = events.empty() ? nullptr : events.front().get();
    state.back = events.empty() ? nullptr : events.back().get();

    if (drop == 0) {
        state.dropping = false;
        return {true, 0};
    }
    const std::uint64_t total = dropped.fetch_add(drop, std::memory_order_relaxed) + drop;
    // Said once per burst: drops go on silently until an event is kept without one.
    if (!state.dropping && Diagnostics::isOn()) {
        Diagnostics::report(DiagnosticLevel::Warning,
                            "Saved events reached the limit (" + std::to_string(eventLimit) +
                                " events, " + std::to_string(byteLimit) +
                                " bytes): the oldest saved events are being dropped (" +
                                std::to_string(total) + " dropped so far)");
    }
    state.dropping = true;
    return {kept, drop};
}

std::pair<std::size_t, std::size_t> SavedEvents::limits() {
    return {maxEvents.load(std::memory_order_relaxed), maxBytes.load(std::memory_order_relaxed)};
}

std::uint64_t SavedEvents::droppedCount() { return dropped.load(std::memory_order_relaxed); }

}  // namespace NorvAnalytic
