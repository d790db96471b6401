#pragma once

#include <atomic>
#include <cstdint>

#include "delivery/Outgoing.h"
#include "delivery/Journal.h"

namespace NorvAnalytic {

// An event handed to the HTTP client, from then until its answer has been handled. Its place in
// the window is freed when the last reference goes: after the answer, or when a client destroys
// the completion without calling it. Any thread; settle() once.
class SentEvent {
public:
    SentEvent(Outgoing outgoing, std::uint64_t generation) noexcept
        : outgoing(std::move(outgoing)), generation_(generation) {}
    ~SentEvent();
    SentEvent(const SentEvent&) = delete;
    SentEvent& operator=(const SentEvent&) = delete;

    // What the answer means for the event's row in the queue file, when it has one.
    void settle(Journal::Settlement settlement);

    Outgoing outgoing;
    // A client that calls a copy of the completion again is not heard twice.
    std::atomic<bool> answered{false};

private:
    std::uint64_t generation_;
};

}  // namespace NorvAnalytic
