#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

namespace NorvAnalytic {

// The events handed to the HTTP client whose answers are not handled yet, so that a host can
// wait for them before it exits. An event counts from begin() until its ticket is gone.
class EventsInFlight {
public:
    // Carried by the request and then by its answer; the event ends when the last copy goes,
    // also when a client drops the request without ever completing it.
    class Ticket {
    public:
        explicit Ticket(std::uint64_t number) : number_(number) {}
        ~Ticket();
        Ticket(const Ticket&) = delete;
        Ticket& operator=(const Ticket&) = delete;

    private:
        std::uint64_t number_;
    };

    static std::shared_ptr<Ticket> begin();
    // True once every event begun before the call has ended; false when the timeout passes
    // first. Later events are not waited for, so a steady stream cannot hold the caller.
    static bool waitForEarlier(std::chrono::milliseconds timeout);
};

}  // namespace NorvAnalytic
