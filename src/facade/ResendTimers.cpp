#include "facade/ResendTimers.h"

#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/NorvAnalytics.h>

#include <mutex>

#include "facade/EventDelivery.h"
#include "mainqueue/RestingTimers.h"

namespace NorvAnalytic {

namespace {

bool resendHasWork() {
    return !Event::savedEvents().empty() || EventDelivery::outbox().journal().hasResendWork();
}

// After every main-queue task: whatever it saved (an answer's keep, or the host's own code
// on that queue) wakes the timers.
void wakeIfSaved() {
    if (!Event::savedEvents().empty()) {
        wakeRestingTimers();
    }
}

void tick() {
    const std::uint64_t epoch = restingTimersEpoch();
    NorvAnalytics::sharedController().checkEvents();
    if (!resendHasWork()) {
        restTimers(epoch);
    }
}

}  // namespace

std::shared_ptr<Timer> ResendTimers::start() {
    static std::once_flag installed;
    std::call_once(installed, [] { setMainQueueTaskObserver(&wakeIfSaved); });
    return scheduledRestingTimer(std::chrono::duration<double>(1.0), &tick);
}

void ResendTimers::resendWorkAppeared() noexcept { wakeRestingTimers(); }

}  // namespace NorvAnalytic
