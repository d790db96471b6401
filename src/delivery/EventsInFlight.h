#pragma once

#include <chrono>
#include <cstdint>
#include <limits>

namespace NorvAnalytic {

// The events sent whose answers are not handled yet, waiting ones included, so that a host can
// wait for them before it exits. An event counts from begin() until its ticket is gone.
class EventsInFlight {
public:
    // Kept inside the event's record: the event ends when the record goes, also when it is
    // dropped or a client drops the request without ever completing it. A moved-from ticket
    // ends nothing.
    class Ticket {
    public:
        explicit Ticket(std::uint64_t number) : number_(number) {}
        ~Ticket() { end(); }
        Ticket(Ticket&& other) noexcept : number_(other.number_) { other.number_ = kEnded; }
        // Ends this one's event and takes the other's.
        Ticket& operator=(Ticket&& other) noexcept {
            if (this != &other) {
                end();
                number_ = other.number_;
                other.number_ = kEnded;
            }
            return *this;
        }
        Ticket(const Ticket&) = delete;
        Ticket& operator=(const Ticket&) = delete;

    private:
        void end() noexcept;
        static constexpr std::uint64_t kEnded = std::numeric_limits<std::uint64_t>::max();
        std::uint64_t number_;
    };

    static Ticket begin();
    // A bound dropped events: the next flush says so.
    static void noteLost(std::uint64_t count);
    // True once every event begun before the call has ended, unless a bound dropped an event
    // since the previous call returned; false when the timeout passes first. Later events are
    // not waited for, so a steady stream cannot hold the caller.
    static bool waitForEarlier(std::chrono::milliseconds timeout);
};

}  // namespace NorvAnalytic
