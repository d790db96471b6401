#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace NorvAnalytic::Testing {

// Runs a program as a second process, with extra "NAME=value" entries on top of this
// process's environment, and returns its wait status; -1 when it could not start or had to
// be killed after the time-out.
int runChildProcess(const std::vector<std::string>& argv,
                    const std::vector<std::string>& extraEnvironment,
                    std::chrono::seconds timeout = std::chrono::seconds(30));

// The path of the running test binary, and of a program built beside it.
std::string selfExecutable();
std::string siblingExecutable(const std::string& name);

}  // namespace NorvAnalytic::Testing
