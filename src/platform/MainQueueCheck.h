#pragma once

#include <NorvAnalytic/MainQueue.h>

#include <cassert>

namespace NorvAnalytic {

// True inside a main-queue task, and on a host executor's thread even between tasks: whatever
// waits there for the queue waits for itself.
bool runsMainQueueTasks();

// Marks code that touches what only the main queue may touch: debug builds stop right there
// when it runs anywhere else.
inline void assertOnMainQueue() { assert(MainQueue::main().isCurrent()); }

}  // namespace NorvAnalytic
