#pragma once

#include <charconv>
#include <cstdlib>
#include <string_view>
#include <system_error>

namespace NorvAnalytic::Bench {

// Events (or requests) a throughput run sends: NORV_THROUGHPUT_EVENTS, else 100,000. A small
// burst lets a run under callgrind, whose instruction counts per event are what compares the SDK
// with libcurl alone on a noisy machine, finish in minutes.
inline int burstSize() {
    int count = 100'000;
    if (const char* text = std::getenv("NORV_THROUGHPUT_EVENTS")) {
        const std::string_view digits(text);
        int parsed = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), parsed);
        if (error == std::errc() && end == digits.data() + digits.size() && parsed > 0) {
            count = parsed;
        }
    }
    return count;
}

}  // namespace NorvAnalytic::Bench
