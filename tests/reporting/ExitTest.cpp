#include <gtest/gtest.h>
#include <sys/wait.h>

#include "support/ChildProcess.h"
#include "support/LocalHttpServer.h"
#include "support/ScratchDirectory.h"

namespace NorvAnalytic {
namespace {

TEST(Exit, HostReturningFromMainWithRequestsInFlightExitsCleanly) {
    const Testing::ScratchDirectory dataHome;
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
            {"XDG_DATA_HOME=" + dataHome.path().string()}, std::chrono::seconds(20));
        ASSERT_NE(status, -1) << url << ": the host hung";
        EXPECT_TRUE(WIFEXITED(status)) << url << ": ended by signal " << WTERMSIG(status);
        EXPECT_EQ(WEXITSTATUS(status), 0) << url;
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10)) << url;
    }
}

}  // namespace
}  // namespace NorvAnalytic
