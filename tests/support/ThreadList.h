#pragma once

#include <string>
#include <vector>

namespace NorvAnalytic::Testing {

// A thread of this process: its id, its name (as top -H shows it), its mask of blocked
// signals (bit n-1 for signal n).
struct ThreadInfo {
    long id;
    std::string name;
    unsigned long long blocked;
    bool blocks(int signal) const { return (blocked & (1ULL << (signal - 1))) != 0; }
};

std::vector<ThreadInfo> threadList();

// Whether a thread of that name runs now with signal blocked.
bool runsWithSignalBlocked(const std::string& name, int signal);

}  // namespace NorvAnalytic::Testing
