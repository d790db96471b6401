#include "support/NetworkNamespace.h"

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

extern char** environ;

namespace NorvAnalytic::Testing {

namespace {

// Runs the program with its arguments, no shell between; true when it exits with 0.
bool runProgram(const std::vector<std::string>& command) {
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (const std::string& argument : command) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t child = 0;
    if (posix_spawnp(&child, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return false;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

NetworkNamespace::NetworkNamespace() {
    static std::atomic<int> counter{0};
    // Unique per process and per object, so suites running side by side never collide.
    name_ = "norvtest-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    if (::geteuid() != 0) {
        failure_ = "network namespaces need root; run this suite as root";
        return;
    }
    created_ = runProgram({"ip", "netns", "add", name_});
    if (!created_) {
        failure_ = "`ip netns add " + name_ + "` failed (is iproute2 installed?)";
    }
}

NetworkNamespace::~NetworkNamespace() {
    if (created_) {
        runProgram({"ip", "netns", "delete", name_});
    }
}

bool NetworkNamespace::ip(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {"ip", "-n", name_};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return runProgram(command);
}

bool NetworkNamespace::run(const std::function<void()>& task) const {
    bool entered = false;
    // A thread of its own: entering changes only the calling thread's namespace, and this one
    // ends right after.
    std::thread worker([&] {
        const int descriptor = ::open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
        if (descriptor < 0) {
            return;
        }
        entered = ::setns(descriptor, CLONE_NEWNET) == 0;
        ::close(descriptor);
        if (entered) {
            task();
        }
    });
    worker.join();
    return entered;
}

}  // namespace NorvAnalytic::Testing
