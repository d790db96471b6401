#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace NorvAnalytic::Testing {

// A thread of this process: its id, its name (as top -H shows it), its mask of blocked
// signals (bit n-1 for signal n), and how often it was switched out so far (each time it went to
// sleep, or was made to give way): what a thread that wakes for nothing costs a laptop.
struct ThreadInfo {
    long id;
    std::string name;
    unsigned long long blocked;
    unsigned long long switches;
    bool blocks(int signal) const { return (blocked & (1ULL << (signal - 1))) != 0; }
};

std::vector<ThreadInfo> threadList();

// Whether a thread of that name runs now with signal blocked.
bool runsWithSignalBlocked(const std::string& name, int signal);

// How many times the threads whose names `counted` picks woke during `span` (those that live at
// both of its ends).
unsigned long long wakeUpsDuring(std::chrono::milliseconds span,
                                 const std::function<bool(const std::string& name)>& counted);

}  // namespace NorvAnalytic::Testing
