#pragma once

#include <NorvAnalytic/MainQueue.h>

#include <cassert>

namespace NorvAnalytic {

// Marks code that touches what only the main queue may touch: debug builds stop right there
// when it runs anywhere else.
inline void assertOnMainQueue() { assert(MainQueue::main().isCurrent()); }

}  // namespace NorvAnalytic
