#pragma once

#include "mainqueue/Clock.h"

namespace NorvAnalytic {

// The default time base of the main queue.
class SteadyClock final : public Clock {
public:
    time_point now() const override { return std::chrono::steady_clock::now(); }
    bool isManual() const override { return false; }
};

}  // namespace NorvAnalytic
