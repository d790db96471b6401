#include "mainqueue/ManualClock.h"

#include "mainqueue/MainQueueClock.h"

namespace NorvAnalytic {

Clock::time_point ManualClock::now() const {
    return time_point(time_point::duration(ticks_.load()));
}

void ManualClock::advance(std::chrono::duration<double> by) {
    ticks_.fetch_add(std::chrono::duration_cast<time_point::duration>(by).count());
    mainQueueClockDidAdvance();
}

}  // namespace NorvAnalytic
