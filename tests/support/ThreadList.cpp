#include "support/ThreadList.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

namespace NorvAnalytic::Testing {

std::vector<ThreadInfo> threadList() {
    std::vector<ThreadInfo> threads;
    std::error_code ignored;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ignored)) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        std::ifstream status(task.path() / "status");
        unsigned long long blocked = 0;
        unsigned long long switches = 0;
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("SigBlk:")) {
                blocked = std::stoull(line.substr(7), nullptr, 16);
            } else if (line.starts_with("voluntary_ctxt_switches:")) {
                switches += std::stoull(line.substr(24));
            } else if (line.starts_with("nonvoluntary_ctxt_switches:")) {
                switches += std::stoull(line.substr(27));
            }
        }
        // A thread that ended between the listing and the reads has no name.
        if (!name.empty()) {
            threads.push_back(
                {std::stol(task.path().filename().string()), name, blocked, switches});
        }
    }
    return threads;
}

bool runsWithSignalBlocked(const std::string& name, int signal) {
    const auto threads = threadList();
    const auto found = std::ranges::find(threads, name, &ThreadInfo::name);
    return found != threads.end() && found->blocks(signal);
}

unsigned long long wakeUpsDuring(std::chrono::milliseconds span,
                                 const std::function<bool(const std::string& name)>& counted) {
    const std::vector<ThreadInfo> before = threadList();
    std::this_thread::sleep_for(span);
    unsigned long long wakeUps = 0;
    for (const ThreadInfo& after : threadList()) {
        const auto earlier = std::ranges::find(before, after.id, &ThreadInfo::id);
        if (earlier != before.end() && counted(after.name)) {
            wakeUps += after.switches - earlier->switches;
        }
    }
    return wakeUps;
}

}  // namespace NorvAnalytic::Testing
