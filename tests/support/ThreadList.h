#pragma once

#include <map>
#include <string>

namespace NorvAnalytic::Testing {

// Each thread of this process by name (as top -H shows it), with its mask of blocked signals
// (bit n-1 for signal n).
std::multimap<std::string, unsigned long long> threadsByName();

// Whether a thread of that name runs now with signal blocked.
bool runsWithSignalBlocked(const std::string& name, int signal);

}  // namespace NorvAnalytic::Testing
