#pragma once

#include "mainqueue/Clock.h"

#include <atomic>
#include <chrono>

namespace NorvAnalytic {

// A clock that moves only when told to, so timers can be driven tick by tick.
class ManualClock final : public Clock {
public:
    time_point now() const override;
    bool isManual() const override { return true; }
    // Moves time on and lets the main queue fire whatever became due.
    void advance(std::chrono::duration<double> by);

private:
    std::atomic<time_point::rep> ticks_{0};
};

}  // namespace NorvAnalytic
