// Delivery at its edges, with the real HTTP client, a real server and a real queue file: privacy
// fences while requests wait, the queue turned off and on mid-flight, a file another process
// locks, and a refused event the saved list lets go.
#include <NorvAnalytic/CurlHttpClient.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "events/SavedEvents.h"
#include "support/ChildProcess.h"
#include "support/FakeReachabilityService.h"
#include "support/LocalHttpServer.h"

namespace NorvAnalytic {
namespace {

using Clock = std::chrono::steady_clock;
using Server = Testing::LocalHttpServer;
namespace fs = std::filesystem;

const fs::path kDataHome = fs::temp_directory_path() / ("norv-edges-" + std::to_string(::getpid()));
const fs::path kQueueFile = kDataHome / "NorvAnalytic" / "queue.sqlite";

std::string valueIn(const std::string& body, const std::string& key) {
    const std::size_t start = body.find("&" + key + "=");
    if (start == std::string::npos) {
        return {};
    }
    const std::size_t value = start + key.size() + 2;
    return body.substr(value, body.find('&', value) - value);
}

// How often each page arrived.
std::map<std::string, int> pageCounts(const Server& server) {
    std::map<std::string, int> counts;
    for (const Server::Received& each : server.received()) {
        ++counts[valueIn(each.body, "pageName")];
    }
    return counts;
}

void sendPages(const std::string& prefix, int count) {
    for (int index = 0; index < count; ++index) {
        NorvAnalytics::sendEventWithPageName(prefix + std::to_string(index));
    }
}

// Rows the queue file holds, read by a connection of the test's own.
int rowsInQueueFile() {
    sqlite3* database = nullptr;
    int rows = -1;
    if (sqlite3_open_v2(kQueueFile.c_str(), &database, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_exec(database, "SELECT count(*) FROM events",
                     [](void* out, int, char** values, char**) {
                         *static_cast<int*>(out) = std::atoi(values[0]);
                         return 0;
                     },
                     &rows, nullptr);
    }
    sqlite3_close(database);
    return rows;
}

// Waits up to a few seconds for what answers changed to reach the file.
bool queueFileEmpties() {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (rowsInQueueFile() != 0 && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return rowsInQueueFile() == 0;
}

class DeliveryEdges : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ::setenv("XDG_DATA_HOME", kDataHome.c_str(), 1);
        Platform::setHttpClient(std::make_shared<CurlHttpClient>());
        // Reachable, so that the resend timer resends.
        Platform::setReachabilityService(std::make_shared<Testing::FakeReachabilityService>());
    }
    static void TearDownTestSuite() { fs::remove_all(kDataHome); }

    void start(bool persistent) {
        NorvAnalytics::setPersistentQueue(persistent);
        NorvAnalytics::initWithKey(std::string("edges-key"));
        NorvAnalytics::setSecureUrl(false);
        NorvAnalytics::sharedController().setUrlString(server.url());
        NorvAnalytics::flush(std::chrono::milliseconds(0));
    }

    // Started with the file open and taking writes, as an event just written down shows.
    void startWithOpenFile() {
        start(true);
        NorvAnalytics::sendEventWithPageName("opens-the-file");
        ASSERT_TRUE(NorvAnalytics::flush(std::chrono::seconds(10)));
        ASSERT_TRUE(queueFileEmpties());
    }

    void TearDown() override {
        NorvAnalytics::setCollectionAllowed(true);
        EXPECT_TRUE(NorvAnalytics::flush(std::chrono::seconds(30)));
        NorvAnalytics::setPersistentQueue(false);
        NorvAnalytics::setIdempotencyKeys(false);
        NorvAnalytics::setSavedEventLimits(SavedEvents::kDefaultMaxEvents,
                                           SavedEvents::kDefaultMaxBytes);
        Platform::setDiagnosticsSink(nullptr);
        server.setResponder(nullptr);
    }

    // Every request answers after a while; each arrival is recorded as it comes.
    void answerSlowly(std::chrono::milliseconds delay, int status = 200) {
        server.setResponder([=](const std::string&, const std::string&) {
            return Server::Answer{.status = status, .delay = delay};
        });
    }

    Server server;
};

// A fence called while events wait everywhere (the outbox, the window, the client's list,
// libcurl's pending transfers, six requests on the wire): nothing but those six reaches the
// server afterwards, every event either arrived or was counted, and none went out with the new
// device UUID.
TEST_F(DeliveryEdges, WithdrawalAndForgetStopEveryRequestNotYetOnTheWire) {
    struct Row {
        bool forget;
        bool persistent;
        int events;
    };
    for (const Row row : {Row{false, false, 300}, Row{false, true, 300}, Row{true, false, 3000},
                          Row{true, true, 3000}}) {
        SCOPED_TRACE(std::string(row.forget ? "forget" : "withdrawal") +
                     (row.persistent ? ", queue on" : ", queue off"));
        start(row.persistent);
        answerSlowly(std::chrono::milliseconds(1000));
        const std::size_t before = server.received().size();
        const std::uint64_t discardedBefore = row.forget ? NorvAnalytics::discardedByForgetCount()
                                                         : NorvAnalytics::discardedWithoutConsentCount();
        const std::string oldUUID = NorvAnalytics::getNorvAnalyticUUID();
        sendPages("fenced-", row.events);
        ASSERT_TRUE(server.waitForCount(before + 1));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (row.forget) {
            NorvAnalytics::forgetDevice();
        } else {
            NorvAnalytics::setCollectionAllowed(false);
        }
        const Clock::time_point fenced = Clock::now();
        NorvAnalytics::setCollectionAllowed(true);
        EXPECT_TRUE(NorvAnalytics::flush(std::chrono::seconds(30)));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));

        const auto received = server.received();
        const std::size_t arrived = received.size() - before;
        for (std::size_t index = before; index < received.size(); ++index) {
            EXPECT_LT(received[index].at, fenced + std::chrono::milliseconds(50));
            EXPECT_EQ(valueIn(received[index].body, "device_uuid"), oldUUID);
        }
        const std::uint64_t discarded =
            (row.forget ? NorvAnalytics::discardedByForgetCount()
                        : NorvAnalytics::discardedWithoutConsentCount()) -
            discardedBefore;
        EXPECT_EQ(discarded + arrived, static_cast<std::size_t>(row.events));
        EXPECT_LT(arrived, static_cast<std::size_t>(row.events));
    }
}

// The server refuses an event it got before the fence, and answers after it: the answer keeps
// nothing, so the one-second resend never sends it again (nor under a new UUID).
TEST_F(DeliveryEdges, ARefusalThatArrivesAfterAFenceKeepsNothing) {
    for (const bool forget : {false, true}) {
        SCOPED_TRACE(forget ? "forget" : "withdrawal");
        start(false);
        answerSlowly(std::chrono::milliseconds(500), 500);
        const std::size_t before = server.received().size();
        NorvAnalytics::sendEventWithPageName("refused-late");
        ASSERT_TRUE(server.waitForCount(before + 1));
        if (forget) {
            NorvAnalytics::forgetDevice();
        } else {
            NorvAnalytics::setCollectionAllowed(false);
            NorvAnalytics::setCollectionAllowed(true);
        }
        EXPECT_TRUE(NorvAnalytics::flush(std::chrono::seconds(10)));
        // Two ticks of the resend timer.
        std::this_thread::sleep_for(std::chrono::milliseconds(2200));
        EXPECT_EQ(server.received().size(), before + 1);
    }
}

// Off and on while 250 events wait for slow answers, then 300 more: every one arrives.
TEST_F(DeliveryEdges, TurningTheQueueOffAndOnMidFlightLosesNoEvent) {
    startWithOpenFile();
    answerSlowly(std::chrono::milliseconds(50));
    sendPages("old-", 250);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    NorvAnalytics::setPersistentQueue(false);
    NorvAnalytics::setPersistentQueue(true);
    sendPages("new-", 300);
    EXPECT_TRUE(NorvAnalytics::flush(std::chrono::seconds(60)));
    const std::map<std::string, int> counts = pageCounts(server);
    for (const auto& [prefix, events] : {std::pair{"old-", 250}, std::pair{"new-", 300}}) {
        for (int index = 0; index < events; ++index) {
            EXPECT_GE(counts.count(prefix + std::to_string(index)), 1U) << prefix << index;
        }
    }
}

// Another process holds the file's write lock for 7 s while 20,000 events are sent: they go
// from memory within the window (none dropped), and once the lock goes, what the answers changed
// is written, so no answered event is left in the file for the next process to send again.
TEST_F(DeliveryEdges, AFileLockedByAnotherProcessLosesNothingAndLeavesNoAnsweredRow) {
    startWithOpenFile();
    std::thread holder([] {
        Testing::runChildProcess({"/usr/bin/sqlite3", kQueueFile.string(), "BEGIN IMMEDIATE;",
                                  ".shell sleep 7", "COMMIT;"},
                                 {});
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const std::uint64_t droppedBefore = NorvAnalytics::droppedEventCount();
    sendPages("locked-", 20'000);
    EXPECT_TRUE(NorvAnalytics::flush(std::chrono::seconds(60)));
    holder.join();
    EXPECT_EQ(NorvAnalytics::droppedEventCount(), droppedBefore);
    EXPECT_EQ(pageCounts(server).size(), 20'001U);
    EXPECT_TRUE(queueFileEmpties());
}

TEST_F(DeliveryEdges, ARefusedEventTheSavedListLetsGoLeavesNoRow) {
    startWithOpenFile();
    NorvAnalytics::setSavedEventLimits(0, 0);
    answerSlowly(std::chrono::milliseconds(0), 500);
    NorvAnalytics::sendEventWithPageName("refused-and-dropped");
    EXPECT_FALSE(NorvAnalytics::flush(std::chrono::seconds(10)));
    EXPECT_TRUE(queueFileEmpties());
}

// A reader of another process keeps the journal from being emptied: the erasure says so.
TEST_F(DeliveryEdges, AForgetThatCannotEmptyTheJournalSaysSo) {
    startWithOpenFile();
    sqlite3* reader = nullptr;
    ASSERT_EQ(sqlite3_open_v2(kQueueFile.c_str(), &reader, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(reader, "BEGIN; SELECT count(*) FROM events;", nullptr, nullptr, nullptr),
              SQLITE_OK);
    std::mutex mutex;
    std::vector<std::string> lines;
    Platform::setDiagnosticsSink([&](DiagnosticLevel, const std::string& line) {
        std::lock_guard lock(mutex);
        lines.push_back(line);
    });
    NorvAnalytics::forgetDevice();
    sqlite3_exec(reader, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(reader);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::lock_guard lock(mutex);
    EXPECT_TRUE(std::ranges::any_of(lines, [](const std::string& line) {
        return line.find("could not be emptied") != std::string::npos;
    }));
}

}  // namespace
}  // namespace NorvAnalytic
