#include "support/NetworkNamespace.h"

#include <sched.h>

#include <cstdlib>
#include <thread>

namespace NorvAnalytic::Testing {

bool NetworkNamespace::run(const std::function<void()>& task) {
    bool entered = false;
    // Unsharing moves only the calling thread, and this one ends with the task.
    std::thread([&] {
        if ((entered = ::unshare(CLONE_NEWNET) == 0)) task();
    }).join();
    return entered;
}

bool NetworkNamespace::ip(const std::string& commands) {
    // The child starts in the calling thread's namespace; in batch mode ip reads one command a
    // line and stops with a failure at the first that fails.
    return std::system(("echo '" + commands + "' | tr ';' '\\n' | ip -batch -").c_str()) == 0;
}

}  // namespace NorvAnalytic::Testing
