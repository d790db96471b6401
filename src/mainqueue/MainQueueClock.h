#pragma once

#include <memory>

#include "mainqueue/Clock.h"

namespace NorvAnalytic {

// Installs the clock that the main queue's timers follow (nullptr returns to the steady clock).
void setMainQueueClock(std::shared_ptr<Clock> clock);
// Fires, in order, the timers that a manual clock's advance made due.
void mainQueueClockDidAdvance();

}  // namespace NorvAnalytic
