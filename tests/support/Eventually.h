#pragma once

#include <chrono>
#include <thread>

namespace NorvAnalytic::Testing {

// Asks done every few milliseconds until it holds or limit has passed, and returns its last
// answer. For what a thread of ours or another process does in its own time: the limit is a
// generous bound against a hang, never a measure of speed.
template <typename Done>
bool eventually(Done done, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto giveUp = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > giveUp) {
            return done();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace NorvAnalytic::Testing
