#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "support/ChildProcess.h"
#include "support/FilesHolding.h"
#include "support/LocalHttpServer.h"

namespace NorvAnalytic {
namespace {

namespace fs = std::filesystem;

// The page names the server received, sorted.
std::vector<std::string> pagesReceived(const Testing::LocalHttpServer& server) {
    std::vector<std::string> pages;
    for (const std::string& body : server.bodies()) {
        const std::size_t start = body.find("pageName=");
        if (start != std::string::npos) {
            pages.push_back(body.substr(start + 9, body.find('&', start) - start - 9));
        }
    }
    std::ranges::sort(pages);
    return pages;
}

// The device UUID of each event the server received, in arrival order.
std::vector<std::string> uuidsReceived(const Testing::LocalHttpServer& server) {
    std::vector<std::string> uuids;
    for (const std::string& body : server.bodies()) {
        const std::size_t start = body.find("device_uuid=");
        if (start != std::string::npos) {
            uuids.push_back(body.substr(start + 12, body.find('&', start) - start - 12));
        }
    }
    return uuids;
}

class Lifecycle : public testing::Test {
protected:
    // Runs the host in this mode against the server with a keychain of its own; its exit code.
    int run(const std::string& mode) {
        const int status = Testing::runChildProcess(
            {Testing::siblingExecutable("reporting_lifecycle_host"), mode, server.url()},
            {"XDG_DATA_HOME=" + dataHome.string()}, std::chrono::seconds(60));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    void TearDown() override { std::filesystem::remove_all(dataHome); }

    Testing::LocalHttpServer server;
    std::filesystem::path dataHome =
        std::filesystem::temp_directory_path() / ("norv-lifecycle-" + std::to_string(::getpid()));
};

TEST_F(Lifecycle, AForkedChildSendsItsOwnEventsOnceAndItsFlushMeansIt) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizers' own allocators are not fork-safe: a child forked while another thread
    // allocates can hang in its first allocation, whatever the SDK does.
    GTEST_SKIP() << "a sanitizer's allocator cannot be used in a child of a threaded process";
#endif
    // The parent's events are still unanswered when it forks.
    server.setResponder([](const std::string&, const std::string& body) {
        return Testing::LocalHttpServer::Answer{
            .delay =
                std::chrono::milliseconds(body.find("parent-") != std::string::npos ? 300 : 0)};
    });
    ASSERT_EQ(run("fork"), 0);
    std::vector<std::string> expected;
    for (int index = 0; index < 10; ++index) {
        expected.push_back("child-" + std::to_string(index));
    }
    for (int index = 0; index < 5; ++index) {
        expected.push_back("parent-" + std::to_string(index));
    }
    EXPECT_EQ(pagesReceived(server), expected);
}

TEST_F(Lifecycle, EventsFromExitHandlersAndThreadLocalDestructorsAreDelivered) {
    ASSERT_EQ(run("exit-handlers"), 0);
    const std::vector<std::string> pages = pagesReceived(server);
    ASSERT_EQ(pages.size(), 3U);
    EXPECT_EQ(pages[0], "atexit");
    EXPECT_TRUE(pages[1].starts_with("first-"));
    EXPECT_EQ(pages[2], "thread-local-destructor");
}

TEST_F(Lifecycle, EveryThreadOfOursIsNamedAndBlocksTheHostsSignals) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer's own background thread has no name of ours";
#endif
    EXPECT_EQ(run("threads"), 0);
}

// Each run sends an event, forgets the device and sends another. The second run's first UUID
// is on disk before it starts, in the keychain and in a store moved aside beside it; afterwards
// no file under the data directory holds a byte of it, and its next event has a new one.
TEST_F(Lifecycle, ForgettingTheDeviceLeavesNoTraceOfItsUUIDAndTheNextEventHasANewOne) {
    ASSERT_EQ(run("forget"), 0);
    const fs::path keychain = dataHome / "NorvAnalytic" / "keychain.sqlite";
    for (const char* suffix : {"", "-wal"}) {
        if (fs::exists(keychain.string() + suffix)) {
            fs::copy_file(keychain.string() + suffix,
                          keychain.string() + ".corrupt-1700000000" + suffix);
        }
    }
    std::vector<std::string> uuids = uuidsReceived(server);
    ASSERT_EQ(uuids.size(), 2U);
    // The store and its copy at least: the search finds what it looks for.
    ASSERT_GE(Testing::filesHolding(dataHome, uuids[1]).size(), 2U);

    ASSERT_EQ(run("forget"), 0);
    uuids = uuidsReceived(server);
    ASSERT_EQ(uuids.size(), 4U);
    EXPECT_EQ(uuids[2], uuids[1]);
    EXPECT_EQ(std::set(uuids.begin(), uuids.end()).size(), 3U);
    for (const std::string& forgotten : {uuids[0], uuids[1]}) {
        EXPECT_EQ(Testing::filesHolding(dataHome, forgotten), std::vector<fs::path>{});
    }
}

}  // namespace
}  // namespace NorvAnalytic
