#pragma once

#include <NorvAnalytic/Timer.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace NorvAnalytic {

// Repeating main-queue timers that rest while their owner has nothing for them to do: their
// ticks then pass without waking any thread, and they keep their phase, so that once woken each
// fires at its next tick, as if it had never stopped.
std::shared_ptr<Timer> scheduledRestingTimer(std::chrono::duration<double> interval,
                                             std::function<void()> action);
// Read before a tick looks for work, and handed to restTimers() when it found none.
std::uint64_t restingTimersEpoch();
// Main queue: every resting timer rests, unless wakeRestingTimers() ran since epoch was read.
void restTimers(std::uint64_t epoch);
// Any thread: every resting timer fires again from its next tick. Cheap while none rests.
void wakeRestingTimers();
// Called on the main queue after each of its tasks, so that whatever a task saved for a timer
// wakes it. A plain function: it runs for every task.
void setMainQueueTaskObserver(void (*observer)());

}  // namespace NorvAnalytic
