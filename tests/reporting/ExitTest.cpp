#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support/LocalHttpServer.h"

extern char** environ;

namespace NorvAnalytic {
namespace {

// Runs the quick-exit host against url and returns its wait status, or -1 after 20 s.
int runHost(const std::string& url, const std::filesystem::path& dataHome) {
    const std::string host = std::filesystem::read_symlink("/proc/self/exe")
                                 .parent_path() / "reporting_quick_exit_host";
    std::vector<std::string> environment = {"XDG_DATA_HOME=" + dataHome.string()};
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::string(*entry).rfind("XDG_DATA_HOME=", 0) != 0) {
            environment.emplace_back(*entry);
        }
    }
    std::vector<char*> envp;
    for (auto& variable : environment) {
        envp.push_back(variable.data());
    }
    envp.push_back(nullptr);
    std::string program = host;
    std::string argument = url;
    char* argv[] = {program.data(), argument.data(), nullptr};
    pid_t child = 0;
    if (posix_spawn(&child, host.c_str(), nullptr, nullptr, argv, envp.data()) != 0) {
        return -1;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
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

TEST(Exit, HostReturningFromMainWithRequestsInFlightExitsCleanly) {
    const auto dataHome = std::filesystem::temp_directory_path() /
                          ("norv-exit-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dataHome);
    Testing::LocalHttpServer slow;
    slow.setResponder([](const std::string&, const std::string&) {
        Testing::LocalHttpServer::Answer answer;
        answer.delay = std::chrono::milliseconds(300);
        return answer;
    });
    // A server that holds every request for longer than the host lives.
    Testing::LocalHttpServer stuck;
    stuck.setResponder([](const std::string&, const std::string&) {
        Testing::LocalHttpServer::Answer answer;
        answer.delay = std::chrono::seconds(4);
        return answer;
    });
    for (const std::string& url : {slow.url(), stuck.url(),
                                   std::string("http://127.0.0.1:1/api/v3/saveEvent")}) {
        const auto started = std::chrono::steady_clock::now();
        const int status = runHost(url, dataHome);
        ASSERT_NE(status, -1) << url << ": the host hung";
        EXPECT_TRUE(WIFEXITED(status)) << url << ": ended by signal " << WTERMSIG(status);
        EXPECT_EQ(WEXITSTATUS(status), 0) << url;
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10)) << url;
    }
    std::filesystem::remove_all(dataHome);
}

}  // namespace
}  // namespace NorvAnalytic
