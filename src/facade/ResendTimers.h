#pragma once

#include <NorvAnalytic/Timer.h>

#include <memory>

namespace NorvAnalytic {

// The resend timers, one per initWithKey, each ticking once a second on its own phase. A tick
// that finds nothing saved and no unanswered row of the queue file lets them all rest, so an
// idle host's threads are not woken for nothing; what is saved later, or an unanswered row,
// wakes them, and each fires again at its next tick.
class ResendTimers {
public:
    // Schedules one more timer on the main queue.
    static std::shared_ptr<Timer> start();
    // Any thread: resending has work again (an event of the queue file got no answer, so its
    // row waits for the next tick's try).
    static void resendWorkAppeared() noexcept;
};

}  // namespace NorvAnalytic
