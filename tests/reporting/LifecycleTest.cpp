#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <thread>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <optional>
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

// The numbers of the "page-N" events the server received, in the order it received them.
std::vector<int> pageNumbersReceived(const Testing::LocalHttpServer& server) {
    std::vector<int> numbers;
    for (const std::string& body : server.bodies()) {
        const std::size_t start = body.find("pageName=page-");
        if (start != std::string::npos) {
            numbers.push_back(std::stoi(body.substr(start + 14)));
        }
    }
    return numbers;
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
    // A host killed by a signal answers minus that signal.
    int run(const std::string& mode, const std::string& url = {}) {
        const int status = Testing::runChildProcess(
            {Testing::siblingExecutable("reporting_lifecycle_host"), mode,
             url.empty() ? server.url() : url},
            {"XDG_DATA_HOME=" + dataHome.string()}, std::chrono::seconds(90));
        return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? -WTERMSIG(status) : -100;
    }

    // The same, wrapped: the host runs as the last argument of prefix.
    int runWrapped(std::vector<std::string> prefix, const std::string& mode,
                   const std::string& extra = {}) {
        prefix.insert(prefix.end(), {Testing::siblingExecutable("reporting_lifecycle_host"), mode,
                                     server.url()});
        if (!extra.empty()) {
            prefix.push_back(extra);
        }
        const int status = Testing::runChildProcess(prefix, {"XDG_DATA_HOME=" + dataHome.string()},
                                                    std::chrono::seconds(90));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -100;
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

// A host with the queue on records 10,000 events and is killed 200 ms after its last call;
// the next process of the host sends them to the URL they were first sent to.
TEST_F(Lifecycle, WhatAKilledHostRecordedTheNextProcessSendsOnceAndInOrder) {
    constexpr int kEvents = 10'000;
    using Clock = std::chrono::steady_clock;
    struct Case {
        const char* name;
        // Up and slow while the first process runs, or a closed port until the second.
        bool serverUpAtKill;
    };
    for (const Case& test : {Case{"closed port", false}, Case{"slow server", true}}) {
        SCOPED_TRACE(test.name);
        std::filesystem::remove_all(dataHome);
        std::mutex mutex;
        std::vector<Clock::time_point> started;
        std::optional<Testing::LocalHttpServer> collector;
        int port = 0;
        if (test.serverUpAtKill) {
            collector.emplace();
            collector->setResponder([&](const std::string&, const std::string&) {
                std::lock_guard lock(mutex);
                started.push_back(Clock::now());
                return Testing::LocalHttpServer::Answer{.delay = std::chrono::milliseconds(100)};
            });
            port = collector->port();
        } else {
            port = Testing::LocalHttpServer().port();
        }
        const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/api/v3/saveEvent";
        ASSERT_EQ(run("persist-record", url), -SIGKILL);
        // Requests begun in the last answer time (and a little for the client to write down
        // the answer) were on the wire at the kill: only they may arrive twice.
        const Clock::time_point killed = Clock::now();
        std::size_t onTheWire = 0;
        {
            std::lock_guard lock(mutex);
            onTheWire = static_cast<std::size_t>(std::ranges::count_if(
                started, [&](Clock::time_point at) { return at > killed - std::chrono::milliseconds(150); }));
        }
        if (collector) {
            collector->setResponder(nullptr);
        } else {
            collector.emplace(port);
            ASSERT_EQ(collector->port(), port);
        }
        const std::size_t beforeResume = collector->bodies().size();
        ASSERT_EQ(run("persist-resume", url), 0);

        const std::vector<int> received = pageNumbersReceived(*collector);
        std::vector<int> distinct = received;
        std::ranges::sort(distinct);
        distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
        ASSERT_EQ(distinct.size(), static_cast<std::size_t>(kEvents));
        EXPECT_EQ(distinct.front(), 0);
        EXPECT_EQ(distinct.back(), kEvents - 1);
        EXPECT_LE(received.size() - distinct.size(), onTheWire);
        // In order: the next process hands them over oldest first, and only its parallel
        // connections let neighbours pass each other, so each tenth of the events arrives,
        // by its median, after the tenth recorded before it.
        std::vector<std::vector<std::size_t>> arrivals(10);
        for (std::size_t index = beforeResume; index < received.size(); ++index) {
            arrivals[static_cast<std::size_t>(received[index]) * 10 / kEvents].push_back(index);
        }
        std::size_t previousMedian = 0;
        for (const std::vector<std::size_t>& tenth : arrivals) {
            ASSERT_FALSE(tenth.empty());
            EXPECT_GT(tenth[tenth.size() / 2], previousMedian);
            previousMedian = tenth[tenth.size() / 2];
        }
    }
}

// How often each page arrived.
std::map<std::string, int> pageCounts(const Testing::LocalHttpServer& server) {
    std::map<std::string, int> counts;
    for (const std::string& page : pagesReceived(server)) {
        ++counts[page];
    }
    return counts;
}

std::map<std::string, int> once(const std::string& prefix, int events) {
    std::map<std::string, int> counts;
    for (int index = 0; index < events; ++index) {
        counts[prefix + std::to_string(index)] = 1;
    }
    return counts;
}

// Two sandboxed instances of one app (each in a PID namespace of its own, where both may be
// pid 1) share the data directory while their events wait: neither takes the other's rows.
TEST_F(Lifecycle, ProcessesInTheirOwnPidNamespacesSendEachEventOnce) {
    const std::vector<std::string> sandbox = {"/usr/bin/unshare", "--pid", "--fork", "--mount-proc"};
    if (Testing::runChildProcess({"/usr/bin/unshare", "--pid", "--fork", "--mount-proc", "/bin/true"},
                                 {}) != 0) {
        GTEST_SKIP() << "no PID namespaces here";
    }
    server.setResponder([](const std::string&, const std::string&) {
        return Testing::LocalHttpServer::Answer{.delay = std::chrono::milliseconds(500)};
    });
    int first = -1;
    std::thread other([&] { first = runWrapped(sandbox, "persist-pair", "a-"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(runWrapped(sandbox, "persist-pair", "b-"), 0);
    other.join();
    EXPECT_EQ(first, 0);
    std::map<std::string, int> expected = once("a-", 30);
    expected.merge(once("b-", 30));
    EXPECT_EQ(pageCounts(server), expected);
}

// A data directory on a 1.2 MB file system fills up under 3,000 events: each is delivered (from
// memory when the file refuses it) or dropped, counted and flushed false; and what was answered
// is not left for the next process, which sends none of them again.
TEST_F(Lifecycle, AFullDiskLosesNoEventSilentlyAndLeavesNoAnsweredOneBehind) {
    const fs::path directory = dataHome / "NorvAnalytic";
    fs::create_directories(directory);
    const std::string host = Testing::siblingExecutable("reporting_lifecycle_host");
    const std::string script = "mount -t tmpfs -o size=1200k tmpfs '" + directory.string() +
                               "' || exit 77; '" + host + "' persist-full '" + server.url() +
                               "' && '" + host + "' persist-resume '" + server.url() + "'";
    const int status = Testing::runChildProcess({"/usr/bin/unshare", "--mount", "/bin/sh", "-c", script},
                                                {"XDG_DATA_HOME=" + dataHome.string()},
                                                std::chrono::seconds(120));
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "no tmpfs can be mounted here";
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(pageCounts(server), once("full-", 3000));
}

// Turning the queue off in one process leaves the file another live process writes.
TEST_F(Lifecycle, TurningTheQueueOffLeavesAFileAnotherProcessUses) {
    server.setResponder([](const std::string&, const std::string&) {
        return Testing::LocalHttpServer::Answer{.delay = std::chrono::milliseconds(300)};
    });
    int writer = -1;
    std::thread other([&] { writer = runWrapped({}, "persist-pair", "w-"); });
    const fs::path file = dataHome / "NorvAnalytic" / "queue.sqlite";
    ASSERT_TRUE(server.waitForCount(1));
    ASSERT_EQ(run("queue-off"), 0);
    EXPECT_TRUE(fs::exists(file));
    other.join();
    EXPECT_EQ(writer, 0);
    EXPECT_EQ(pageCounts(server), once("w-", 30));
    // Once nobody uses it, off deletes it.
    ASSERT_EQ(run("queue-off"), 0);
    EXPECT_FALSE(fs::exists(file));
}

// Events the server refused, kept in the file, are resent by the next process with the keys and
// the bodies of their first send.
TEST_F(Lifecycle, TheNextProcessResendsAnEventWithItsFirstKey) {
    std::atomic<int> refusals{3};
    server.setResponder([&](const std::string&, const std::string&) {
        return Testing::LocalHttpServer::Answer{.status = refusals-- > 0 ? 500 : 200};
    });
    ASSERT_EQ(run("persist-keys"), 0);
    ASSERT_EQ(run("persist-resume"), 0);
    std::map<std::string, std::vector<Testing::LocalHttpServer::Received>> byPage;
    for (const auto& each : server.received()) {
        const std::size_t start = each.body.find("pageName=") + 9;
        byPage[each.body.substr(start, each.body.find('&', start) - start)].push_back(each);
    }
    ASSERT_EQ(byPage.size(), 3U);
    for (const auto& [page, sends] : byPage) {
        ASSERT_EQ(sends.size(), 2U) << page;
        EXPECT_FALSE(sends[0].key.empty());
        EXPECT_EQ(sends[1].key, sends[0].key);
        EXPECT_EQ(sends[1].body, sends[0].body);
    }
}

TEST_F(Lifecycle, WithoutConsentNothingIsSentAndNothingWritten) {
    ASSERT_EQ(run("no-consent"), 0);
    EXPECT_TRUE(server.bodies().empty());
    EXPECT_FALSE(std::filesystem::exists(dataHome));
}

TEST_F(Lifecycle, EveryThreadOfOursIsNamedAndBlocksTheHostsSignals) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer's own background thread has no name of ours";
#endif
    EXPECT_EQ(run("threads"), 0);
}

// An idle host's threads of ours sleep while nothing waits: also after a refused event, which
// is resent on the next tick as it always was.
TEST_F(Lifecycle, OurThreadsSleepWhileNothingWaits) {
    std::mutex mutex;
    bool refused = false;
    server.setResponder([&](const std::string&, const std::string& body) {
        const std::lock_guard lock(mutex);
        const bool refuse = !refused && body.find("refuse-me") != std::string::npos;
        refused = refused || refuse;
        return Testing::LocalHttpServer::Answer{.status = refuse ? 500 : 200};
    });
    EXPECT_EQ(run("idle"), 0);
    EXPECT_EQ(std::ranges::count(pagesReceived(server), "refuse-me"), 2);
}

// Each run sends an event, forgets the device and sends another. The second run's first UUID
// is on disk before it starts, in the keychain and in a store moved aside beside it; afterwards
// no file under the data directory holds a byte of it, and its next event has a new one.
TEST_F(Lifecycle, ForgettingTheDeviceLeavesNoTraceOfItsUUIDAndTheNextEventHasANewOne) {
    ASSERT_EQ(run("forget"), 0);
    // Moved-aside copies of the keychain and of the queue file go too.
    const fs::path directory = dataHome / "NorvAnalytic";
    for (const char* store : {"keychain.sqlite", "queue.sqlite"}) {
        for (const char* suffix : {"", "-wal"}) {
            if (fs::exists(directory / (store + std::string(suffix)))) {
                fs::copy_file(directory / (store + std::string(suffix)),
                              directory / (store + std::string(".corrupt-1700000000") + suffix));
            }
        }
    }
    std::vector<std::string> uuids = uuidsReceived(server);
    ASSERT_EQ(uuids.size(), 2U);
    // The stores and their copies: the search finds what it looks for.
    ASSERT_GE(Testing::filesHolding(dataHome, uuids[1]).size(), 4U);

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
