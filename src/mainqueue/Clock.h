#pragma once

#include <chrono>

namespace NorvAnalytic {

// The time base of the main queue's timers. The default follows the steady clock; a test
// may install one it advances itself.
class Clock {
public:
    using time_point = std::chrono::steady_clock::time_point;
    using duration = time_point::duration;
    virtual ~Clock() = default;
    virtual time_point now() const = 0;
    // True when time only moves on advance(): the queue then waits for it instead of sleeping.
    virtual bool isManual() const = 0;
};

}  // namespace NorvAnalytic
