#pragma once

#include <sys/resource.h>

namespace NorvAnalytic::Bench {

// User and system CPU time of the whole process (every thread), in microseconds.
inline double cpuMicroseconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto micros = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    };
    return micros(usage.ru_utime) + micros(usage.ru_stime);
}

}  // namespace NorvAnalytic::Bench
