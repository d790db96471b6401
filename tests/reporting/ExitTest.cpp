#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "support/ChildProcess.h"
#include "support/LocalHttpServer.h"

namespace NorvAnalytic {
namespace {

TEST(Exit, HostReturningFromMainWithRequestsInFlightExitsCleanly) {
    const auto dataHome =
        std::filesystem::temp_directory_path() / ("norv-exit-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dataHome);
    const auto answeringAfter = [](std::chrono::milliseconds delay) {
        return [delay](const std::string&, const std::string&) {
            return Testing::LocalHttpServer::Answer{.delay = delay};
        };
    };
    Testing::LocalHttpServer slow;
    slow.setResponder(answeringAfter(std::chrono::milliseconds(300)));
    // A server that holds every request for longer than the host lives.
    Testing::LocalHttpServer stuck;
    stuck.setResponder(answeringAfter(std::chrono::seconds(4)));
    for (const std::string& url :
         {slow.url(), stuck.url(), std::string("http://127.0.0.1:1/api/v3/saveEvent")}) {
        const auto started = std::chrono::steady_clock::now();
        const int status = Testing::runChildProcess(
            {Testing::siblingExecutable("reporting_quick_exit_host"), url},
            {"XDG_DATA_HOME=" + dataHome.string()}, std::chrono::seconds(20));
        ASSERT_NE(status, -1) << url << ": the host hung";
        EXPECT_TRUE(WIFEXITED(status)) << url << ": ended by signal " << WTERMSIG(status);
        EXPECT_EQ(WEXITSTATUS(status), 0) << url;
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10)) << url;
    }
    std::filesystem::remove_all(dataHome);
}

}  // namespace
}  // namespace NorvAnalytic
