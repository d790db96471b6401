#pragma once

#include <fstream>
#include <string>

namespace NorvAnalytic::Bench {

// The process's resident memory in kB, as the kernel reports it.
inline double residentKilobytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stod(line.substr(6));
        }
    }
    return 0.0;
}

}  // namespace NorvAnalytic::Bench
