#pragma once

#include <fstream>
#include <string>

namespace NorvAnalytic::Bench {

// A line of the kernel's account of this process's memory, in kB.
inline double statusKilobytes(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field, 0) == 0) {
            return std::stod(line.substr(field.size()));
        }
    }
    return 0.0;
}

// The process's resident memory now, and the most it has had.
inline double residentKilobytes() { return statusKilobytes("VmRSS:"); }
inline double peakResidentKilobytes() { return statusKilobytes("VmHWM:"); }

}  // namespace NorvAnalytic::Bench
