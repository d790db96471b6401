#include "support/NetworkNamespace.h"

#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <thread>

namespace NorvAnalytic::Testing {

bool NetworkNamespace::run(const std::function<void()>& task) {
    bool entered = false;
    // Unsharing moves only the calling thread, and this one ends with the task.
    std::thread worker([&] {
        entered = ::unshare(CLONE_NEWNET) == 0;
        if (entered) {
            task();
        }
    });
    worker.join();
    return entered;
}

bool NetworkNamespace::ip(const std::string& commands) {
    // The child starts in the calling thread's namespace; in batch mode ip reads one command a
    // line and stops with a failure at the first that fails.
    std::string lines = commands + "\n";
    std::replace(lines.begin(), lines.end(), ';', '\n');
    FILE* batch = ::popen("ip -batch -", "w");
    if (batch == nullptr) {
        return false;
    }
    std::fwrite(lines.data(), 1, lines.size(), batch);
    return ::pclose(batch) == 0;
}

}  // namespace NorvAnalytic::Testing
