#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/URL.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mainqueue/MainQueueClock.h"
#include "mainqueue/ManualClock.h"
#include "platform/Diagnostics.h"
#include "platform/LinuxDevice.h"
#include "support/Eventually.h"
#include "support/HostLoop.h"
#include "support/QueueOrderProbe.h"
#include "support/ScratchDirectory.h"
#include "support/ThreadList.h"

namespace NorvAnalytic {
namespace {

using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

TEST(MainQueueTest, TimersRunOnTheQueuesOwnThreadInOrder) {
    auto clock = std::make_shared<ManualClock>();
    auto& queue = MainQueue::main();
    setMainQueueClock(clock);
    Lines ran;  // touched on the queue only, and read after a sync
    auto everySecond = queue.scheduledTimer(1s, true, [&] { ran.push_back("second"); });
    auto once = queue.scheduledTimer(1500ms, false, [&] { ran.push_back("once"); });
    // The last step is three seconds late: a repeating timer fires once and keeps its rhythm.
    for (std::chrono::milliseconds step : {999ms, 1ms, 1000ms, 3000ms}) {
        clock->advance(step);
    }
    queue.sync([&] { EXPECT_EQ(ran, (Lines{"second", "once", "second", "second"})); });
    EXPECT_FALSE(once->isValid());
    everySecond->invalidate();
    clock->advance(5s);
    setMainQueueClock(nullptr);

    // A late firing of the invalidated timer would show up before this task.
    queue.sync([&] {
        queue.sync([&] { ran.push_back(queue.isCurrent() ? "nested, inline" : "nested"); });
    });
    EXPECT_EQ(ran, (Lines{"second", "once", "second", "second", "nested, inline"}));
}

TEST(MainQueueTest, ATapFromTheHostLoopsThreadDismissesThenRunsTheHandlerThereAtOnce) {
    Testing::HostLoop loop;
    auto& queue = MainQueue::main();
    queue.setExecutor(loop.executor());
    Lines runs;         // written on the loop's thread, read after it signalled
    queue.sync([] {});  // the loop has run a task of the queue
    auto alert = AlertController::alertControllerWithTitle("New Update Available!", std::nullopt,
                                                           AlertControllerStyle::Alert);
    alert->addAction(AlertAction::actionWithTitle(
        "Update", AlertActionStyle::Default, [&](const AlertAction& a) {
            runs.push_back(a.title() + (std::this_thread::get_id() == loop.id() ? " on loop" : "") +
                           (alert->isOnScreen() ? " on screen" : ""));
        }));
    alert->addAction(AlertAction::actionWithTitle("Cancel", AlertActionStyle::Cancel, nullptr));
    Testing::endsWithin(30s, "the host loop's thread waits for itself", [&] {
        std::promise<void> clicked;
        loop.post([&] {  // a button's click: the loop's own work, not a task of the queue
            for (int index : {2, 1, 0}) {  // no action at 2
                alert->setOnScreen(true);
                alert->tapActionAtIndex(index);
                runs.push_back(alert->isOnScreen() ? "shown" : "dismissed");
            }
            clicked.set_value();
        });
        clicked.get_future().wait();
    });
    queue.setExecutor(nullptr);
    EXPECT_EQ(runs, (Lines{"shown", "dismissed", "Update on loop", "dismissed"}));
}

// A task that throws, and a host's executor that throws the first time it is handed work (its
// loop not ready yet): each is said once on the diagnostics sink and the queue goes on, in
// order; sync() hands its task's exception to its caller, and no thread is left marked as the
// queue's by a task that threw.
TEST(MainQueueTest, WhatATaskOrTheHostsExecutorThrowsIsSaidOnceAndTheQueueGoesOn) {
    std::mutex mutex;
    Lines said;
    Platform::setDiagnosticsSink([&](DiagnosticLevel, const std::string& line) {
        const std::lock_guard lock(mutex);
        said.push_back(line.substr(0, line.find(" (")));
    });
    auto& queue = MainQueue::main();
    Lines ran;  // touched on the queue only, and read after a sync
    queue.async([] { throw std::runtime_error("a task failed"); });
    queue.async([&] { ran.push_back("after the throw"); });
    bool rethrown = false;
    Testing::endsWithin(30s, "sync() after a task that threw", [&] {
        try {
            queue.sync([] { throw std::logic_error("sync's task failed"); });
        } catch (const std::logic_error&) {
            rethrown = true;
        }
    });

    Testing::HostLoop loop;
    bool refused = false;  // norv-main hands work over
    queue.setExecutor([&](MainQueue::Task task) {
        if (!std::exchange(refused, true)) {
            throw std::runtime_error("the loop is not ready");
        }
        loop.post(std::move(task));
    });
    for (int task = 0; task < 3; ++task) {
        queue.async([&, task] {
            ran.push_back("loop " + std::to_string(task) +
                          (std::this_thread::get_id() == loop.id() ? "" : " elsewhere"));
        });
    }
    queue.async([] { throw std::runtime_error("a task on the loop failed"); });
    Testing::endsWithin(30s, "sync() through an executor that threw once",
                        [&] { queue.sync([] {}); });
    queue.setExecutor(nullptr);
    std::promise<bool> loopMarked;
    loop.post([&] { loopMarked.set_value(queue.isCurrent()); });  // the loop's own work
    EXPECT_FALSE(loopMarked.get_future().get());
    Platform::setDiagnosticsSink(nullptr);
    EXPECT_TRUE(rethrown);
    EXPECT_EQ(ran, (Lines{"after the throw", "loop 0", "loop 1", "loop 2"}));
    EXPECT_EQ(said, (Lines{"A task on the main queue threw", "The host's executor threw",
                           "A task on the main queue threw"}));
}

// The executor is replaced while a task of the queue runs on the host's thread: the tasks after
// it wait for it to end, wherever they run next, and keep their order.
TEST(MainQueueTest, AChangeOfExecutorWhileATaskRunsKeepsTheQueueSerial) {
    auto& queue = MainQueue::main();
    Testing::QueueOrderProbe probe;
    Testing::HostLoop loop;
    queue.setExecutor(loop.executor());
    std::promise<void> started;
    queue.async([&, slow = probe.task(0, 200ms)] {
        started.set_value();
        slow();
    });
    queue.async(probe.task(1));
    started.get_future().wait();
    probe.startAdding();
    queue.setExecutor(nullptr);
    std::this_thread::sleep_for(50ms);
    Testing::endsWithin(30s, "the queue after a change of executor", [&] { probe.stopAdding(); });
    EXPECT_FALSE(probe.overlapped());
    EXPECT_TRUE(probe.ranInOrder(2));
}

// A sink slower than the lines said: they reach it in order, and what a full queue dropped is
// counted and said, in its place, once there is room again.
TEST(DiagnosticsTest, ASlowSinkGetsItsLinesInOrderAndWhatAFullQueueDroppedIsSaid) {
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    Lines got;  // the sink's thread only, read after the sink was replaced
    Platform::setDiagnosticsSink([&](DiagnosticLevel, const std::string& line) {
        if (got.empty()) {
            entered.set_value();
            released.wait();
        }
        got.push_back(line);
    });
    const std::size_t droppedBefore = Diagnostics::droppedCount();
    Diagnostics::report(DiagnosticLevel::Info, "line 0");
    entered.get_future().wait();
    constexpr std::size_t kBeyond = 5;
    const std::size_t lines = 1 + Diagnostics::kMaxWaitingLines + kBeyond;
    for (std::size_t line = 1; line < lines; ++line) {
        Diagnostics::report(DiagnosticLevel::Info, "line " + std::to_string(line));
    }
    release.set_value();
    Diagnostics::waitUntilDelivered(std::chrono::steady_clock::now() + 30s);
    Diagnostics::report(DiagnosticLevel::Info, "after");
    Platform::setDiagnosticsSink(nullptr);
    Lines expected;
    for (std::size_t line = 0; line <= Diagnostics::kMaxWaitingLines; ++line) {
        expected.push_back("line " + std::to_string(line));
    }
    expected.push_back("5 diagnostics lines were dropped: the sink fell behind.");
    expected.push_back("after");
    EXPECT_EQ(got, expected);
    EXPECT_EQ(Diagnostics::droppedCount() - droppedBefore, kBeyond);
}

TEST(URLTest, AcceptsWhatRfc3986AcceptsAndKeepsTheTextAsGiven) {
    // Each row: a text, and the scheme read from it ("": refused).
    const std::vector<std::pair<std::string, std::string>> rows = {
        // curl would rewrite these ("itms-services:///?", dot segments, lower-case host).
        {"itms-services://?action=download-manifest&url=https://dl.example.com/m.plist",
         "itms-services"},
        {"HTTPS://Example.com:8443/a/../b?x=1&y=%2F#top", "https"},
        {"http://user:secret@[::1]:8080/path;p=1/", "http"},
        {"custom+scheme.v2-x://host/$(a);b'c'*,=!@:", "custom+scheme.v2-x"},
        // An embedded NUL must not cut the text short into a valid URL.
        {std::string("https://dl.example.com/\0evil", 28), ""},
        // What no URI holds, though curl would take it.
        {"https://dl.example.com/`id`", ""},
        {"https://dl.example.com/%4z", ""},
        {"https://dl.example.com/?x=[1]", ""},
        {"1abc://host/", ""},
    };
    for (const auto& [text, scheme] : rows) {
        const auto url = URL::URLWithString(text);
        EXPECT_EQ(url ? url->absoluteString() + " " + url->scheme() : "",
                  scheme.empty() ? "" : text + " " + scheme);
    }
}

TEST(LinuxDeviceTest, ReadsTheDistributionsVersionAndTheFirstBattery) {
    const Testing::ScratchDirectory scratch;
    const std::filesystem::path& root = scratch.path();
    std::filesystem::create_directories(root / "power/AC");
    std::filesystem::create_directories(root / "power/BAT0");
    std::ofstream(root / "os-release")
        << "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n";
    std::ofstream(root / "power/AC/type") << "Mains\n";
    std::ofstream(root / "power/BAT0/type") << "Battery\n";
    std::ofstream(root / "power/BAT0/capacity") << "75\n";
    LinuxDevice device((root / "os-release").string(), (root / "power").string());
    LinuxDevice bare((root / "missing").string(), (root / "none").string());
    utsname names{};
    ::uname(&names);
    // No os-release: the kernel's release stands in.
    EXPECT_EQ(
        device.systemVersion() + " " + device.machineIdentifier() + " " + bare.systemVersion(),
        std::string("12 ") + names.machine + " " + names.release);

    // The level is known only while monitoring is on, counted across callers; no battery, or
    // an unreadable one: unknown. It is read on a thread of ours, so a change shows a little
    // later.
    const auto soon = [](LinuxDevice& reader, float expected) {
        Testing::eventually([&] { return reader.batteryLevel() == expected; });
        return reader.batteryLevel();
    };
    std::vector<float> levels{device.batteryLevel()};
    for (bool enabled : {true, true, false}) {
        device.setBatteryMonitoringEnabled(enabled);
        bare.setBatteryMonitoringEnabled(enabled);
    }
    levels.insert(levels.end(), {soon(device, 0.75F), bare.batteryLevel()});
    // Its thread ends with the reading: nothing of ours stays to wake for the next one.
    EXPECT_TRUE(Testing::eventually([] {
        return std::ranges::count(Testing::threadList(), "norv-battery",
                                  &Testing::ThreadInfo::name) == 0;
    }));
    std::ofstream(root / "power/BAT0/capacity") << "not a number\n";
    levels.push_back(soon(device, -1.0F));
    std::ofstream(root / "power/BAT0/capacity") << "40\n";
    // One more stop than starts is ignored, so the next start turns monitoring on.
    for (bool enabled : {false, false}) {
        device.setBatteryMonitoringEnabled(enabled);
        levels.push_back(device.batteryLevel());
    }
    device.setBatteryMonitoringEnabled(true);
    levels.push_back(soon(device, 0.4F));
    EXPECT_EQ(levels, (std::vector<float>{-1.0F, 0.75F, -1.0F, -1.0F, -1.0F, -1.0F, 0.4F}));

    // A battery whose file does not answer (a FIFO nobody writes) keeps no caller waiting.
    std::filesystem::remove(root / "power/BAT0/capacity");
    ASSERT_EQ(::mkfifo((root / "power/BAT0/capacity").c_str(), 0600), 0);
    LinuxDevice slow((root / "os-release").string(), (root / "power").string());
    slow.setBatteryMonitoringEnabled(true);
    auto level = std::async(std::launch::async, [&] { return slow.batteryLevel(); });
    const bool answered = level.wait_for(std::chrono::seconds(1)) == std::future_status::ready;
    std::ofstream(root / "power/BAT0/capacity") << "55\n";
    EXPECT_TRUE(answered);
    EXPECT_EQ(level.get(), -1.0F);
}

}  // namespace
}  // namespace NorvAnalytic
