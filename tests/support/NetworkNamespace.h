#pragma once

#include <functional>
#include <string>

namespace NorvAnalytic::Testing {

// A network namespace of the test's own, empty but for a loopback that is down. It lives as
// long as the task that runs in it; every interface made inside goes with it.
class NetworkNamespace {
public:
    // Runs the task on a thread of its own that has entered a new namespace, and waits for it.
    // False (and the task not run) when no namespace could be made: that needs root.
    static bool run(const std::function<void()>& task);
    // Runs each of the ";"-separated `ip` commands in the calling thread's namespace; true
    // when every one exits with 0.
    static bool ip(const std::string& commands);
};

}  // namespace NorvAnalytic::Testing
