#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "delivery/QueueFile.h"
#include "support/HostLoop.h"
#include "support/ReportingHarness.h"

namespace NorvAnalytic {
namespace {

using namespace std::chrono_literals;
using Testing::ReportingHarness;

// The host's code runs outside every lock of ours: a diagnostics sink may call any public
// function, even when what it hears was said while the SDK held a lock (a damaged queue file,
// found while the hand-over's file lock is held). Each row's call comes from the sink that
// hears of the damage; the call that opened the file returns, and so does the sink's.
TEST(HostCode, ASinkMayCallEveryPublicFunction) {
    const std::filesystem::path dataHome =
        std::filesystem::temp_directory_path() / ("norv-host-code-" + std::to_string(::getpid()));
    ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
    {
        ReportingHarness harness;
        const std::vector<std::pair<const char*, std::function<void()>>> rows = {
            {"setPersistentQueue(false)", [] { NorvAnalytics::setPersistentQueue(false); }},
            {"setPersistentQueue(true)", [] { NorvAnalytics::setPersistentQueue(true); }},
            {"forgetDevice()", [] { NorvAnalytics::forgetDevice(); }},
            {"setCollectionAllowed(false)", [] { NorvAnalytics::setCollectionAllowed(false); }},
            {"setCollectionAllowed(true)", [] { NorvAnalytics::setCollectionAllowed(true); }},
            {"flush()", [] { NorvAnalytics::flush(1s); }},
            {"initWithKey()",
             [] {
                 ReportingHarness::withoutNewTimer(
                     [] { NorvAnalytics::initWithKey(std::string(ReportingHarness::kKey)); });
             }},
            {"an event call", [] { NorvAnalytics::sendEventWithPageName("From the sink"); }},
            {"saveStoreUserID()", [] { NorvAnalytics::saveStoreUserID("from-the-sink"); }},
            {"getNorvAnalyticUUID()", [] { NorvAnalytics::getNorvAnalyticUUID(); }},
            {"setSavedEventLimits()", [] { NorvAnalytics::setSavedEventLimits(100, 1 << 20); }},
            {"setWaitingEventLimits()", [] { NorvAnalytics::setWaitingEventLimits(100, 1 << 20); }},
            {"setLogLevel()", [] { NorvAnalytics::setLogLevel(1); }},
            {"checkUpdates()", [] { NorvAnalytics::checkUpdates(true); }},
            {"setSecureUrl()", [] { NorvAnalytics::setSecureUrl(false); }},
            {"setCollectionServerHost()",
             [] { NorvAnalytics::setCollectionServerHost("collector.test:80"); }},
            {"Keychain::saveItem()",
             [] { Keychain::saveItem("v", "k", "from-the-sink", nullptr); }},
            {"MainQueue::sync()", [] { MainQueue::main().sync([] {}); }},
            {"setDiagnosticsSink(nullptr)", [] { Platform::setDiagnosticsSink(nullptr); }},
        };
        const std::filesystem::path queueFile = QueueFile::pathFor("");
        for (const auto& [name, call] : rows) {
            SCOPED_TRACE(name);
            // Opened and turned off again, so that whatever the last row's call left, the file is
            // closed and deleted by the hand-over's thread before the damaged one is made.
            NorvAnalytics::setPersistentQueue(true);
            NorvAnalytics::setPersistentQueue(false);
            for (int wait = 0; std::filesystem::exists(queueFile) && wait < 10'000; ++wait) {
                std::this_thread::sleep_for(1ms);
            }
            std::filesystem::create_directories(queueFile.parent_path());
            std::ofstream(queueFile) << std::string(4096, 'z');
            std::atomic<bool> heard = false;
            std::promise<void> answered;
            Platform::setDiagnosticsSink([&](DiagnosticLevel, const std::string& line) {
                if (line.find("moved aside") != std::string::npos && !heard.exchange(true)) {
                    call();
                    answered.set_value();
                }
            });
            Testing::endsWithin(30s, name, [&] {
                NorvAnalytics::setPersistentQueue(true);
                answered.get_future().wait();
            });
            Platform::setDiagnosticsSink(nullptr);
            NorvAnalytics::setCollectionAllowed(true);
            NorvAnalytics::sharedController().setUrlString(std::string(ReportingHarness::kUrl));
        }
        NorvAnalytics::setSavedEventLimits(10'000, 16 << 20);
        NorvAnalytics::setWaitingEventLimits(100'000, 32 << 20);
        NorvAnalytics::checkUpdates(false);
        NorvAnalytics::setCollectionServerHost("localhost:8787");
        while (harness.http->answerAll(200, "") > 0) {
        }
    }
    ::unsetenv("XDG_DATA_HOME");
    std::filesystem::remove_all(dataHome);
}

// A host's executor that throws the first time it is handed work (its loop not ready yet):
// every answer is still handled, so the window never fills, and flush sees them all.
TEST(HostCode, AnExecutorThatThrowsOnceLosesNoAnswer) {
    ReportingHarness harness;
    NorvAnalytics::setLogLevel(1);  // every answer is read on the main queue
    Testing::HostLoop loop;
    bool refused = false;  // norv-main hands work over
    MainQueue::main().setExecutor([&](MainQueue::Task task) {
        if (!std::exchange(refused, true)) {
            throw std::runtime_error("the loop is not ready");
        }
        loop.post(std::move(task));
    });
    constexpr std::size_t kEvents = 401;
    std::size_t answered = 0;
    bool flushed = false;
    Testing::endsWithin(60s, "answers through an executor that threw once", [&] {
        for (std::size_t event = 0; event < kEvents; ++event) {
            NorvAnalytics::sendEventWithPageName("page-" + std::to_string(event));
        }
        for (std::size_t round = 0; answered < kEvents && round < 100; ++round) {
            answered += harness.http->answerAll(200, "{}");
        }
        flushed = NorvAnalytics::flush(10s);
    });
    MainQueue::main().setExecutor(nullptr);
    NorvAnalytics::setLogLevel(0);
    EXPECT_EQ(answered, kEvents);
    EXPECT_TRUE(flushed);
}

}  // namespace
}  // namespace NorvAnalytic
