#include "support/ChildProcess.h"

#include <filesystem>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>

extern char** environ;

namespace NorvAnalytic::Testing {

int runChildProcess(const std::vector<std::string>& argv,
                    const std::vector<std::string>& extraEnvironment,
                    std::chrono::seconds timeout) {
    // The extra entries come first: a lookup takes the first entry of a name.
    std::vector<std::string> environment = extraEnvironment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        environment.emplace_back(*entry);
    }
    std::vector<std::string> arguments = argv;
    std::vector<char*> argumentPointers;
    for (auto& argument : arguments) {
        argumentPointers.push_back(argument.data());
    }
    argumentPointers.push_back(nullptr);
    std::vector<char*> environmentPointers;
    for (auto& variable : environment) {
        environmentPointers.push_back(variable.data());
    }
    environmentPointers.push_back(nullptr);

    pid_t child = 0;
    if (posix_spawn(&child, arguments.at(0).c_str(), nullptr, nullptr, argumentPointers.data(),
                    environmentPointers.data()) != 0) {
        return -1;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return status;
}

std::string selfExecutable() { return std::filesystem::read_symlink("/proc/self/exe"); }

std::string siblingExecutable(const std::string& name) {
    return std::filesystem::path(selfExecutable()).parent_path() / name;
}

}  // namespace NorvAnalytic::Testing
