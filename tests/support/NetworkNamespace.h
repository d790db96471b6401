#pragma once

#include <functional>
#include <string>
#include <vector>

namespace NorvAnalytic::Testing {

// A network namespace of the test's own (needs root), deleted with the object even when the
// test fails; every interface made inside it goes with it.
class NetworkNamespace {
public:
    NetworkNamespace();
    ~NetworkNamespace();
    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;

    // False when the namespace could not be made; failure() says why.
    bool created() const { return created_; }
    const std::string& failure() const { return failure_; }
    const std::string& name() const { return name_; }

    // Runs `ip -n <name> <arguments...>`; true when it exits with 0.
    bool ip(const std::vector<std::string>& arguments) const;
    // Runs the task on a thread that has entered the namespace, and waits for it. False (and
    // the task not run) when the thread could not enter.
    bool run(const std::function<void()>& task) const;

private:
    std::string name_;
    bool created_ = false;
    std::string failure_;
};

}  // namespace NorvAnalytic::Testing
