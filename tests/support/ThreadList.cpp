#include "support/ThreadList.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace NorvAnalytic::Testing {

std::vector<ThreadInfo> threadList() {
    std::vector<ThreadInfo> threads;
    std::error_code ignored;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ignored)) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        std::ifstream status(task.path() / "status");
        unsigned long long blocked = 0;
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("SigBlk:")) {
                blocked = std::stoull(line.substr(7), nullptr, 16);
            }
        }
        // A thread that ended between the listing and the reads has no name.
        if (!name.empty()) {
            threads.push_back({std::stol(task.path().filename().string()), name, blocked});
        }
    }
    return threads;
}

bool runsWithSignalBlocked(const std::string& name, int signal) {
    const auto threads = threadList();
    const auto found = std::ranges::find(threads, name, &ThreadInfo::name);
    return found != threads.end() && found->blocks(signal);
}

}  // namespace NorvAnalytic::Testing
