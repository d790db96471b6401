#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "delivery/Outbox.h"
#include "support/ReportingHarness.h"

namespace NorvAnalytic {
namespace {

using Testing::ReportingHarness;
constexpr std::size_t kWindow = Outbox::kWindow;

std::vector<std::string> pages(std::size_t from, std::size_t to) {
    std::vector<std::string> names;
    for (std::size_t page = from; page < to; ++page) {
        names.push_back("p" + std::to_string(page));
    }
    return names;
}

// The page of every body the client got, in the order it got them.
std::vector<std::string> sentPages(const ReportingHarness& harness) {
    std::vector<std::string> names;
    for (const std::string& body : harness.http->bodies()) {
        const std::size_t start = body.find("pageName=") + 9;
        names.push_back(body.substr(start, body.find('&', start) - start));
    }
    return names;
}

TEST(Outbox, AWindowAtATimeInOrderAlsoToAClientThatAnswersInsideSend) {
    ReportingHarness harness;
    constexpr std::size_t kEvents = 30'000;
    std::ranges::for_each(pages(0, kEvents), &NorvAnalytics::sendEventWithPageName);
    EXPECT_EQ(harness.http->requests().size(), kWindow);
    harness.http->answerInsideSend = true;
    harness.http->answerAll(200, "");
    EXPECT_TRUE(NorvAnalytics::flush(std::chrono::minutes(1)));
    EXPECT_EQ(sentPages(harness), pages(0, kEvents));
}

// Each event finds the delivery thread asleep, or falling asleep, from two host threads at once:
// an event whose wake-up were lost would wait for the next call, and the flush would fail.
TEST(Outbox, EveryEventWakesTheHandOverEvenWhileItFallsAsleep) {
    ReportingHarness harness;
    harness.http->answerInsideSend = true;
    std::atomic<int> unflushed{0};
    const auto sendAndFlush = [&](const std::string& prefix) {
        for (int round = 0; round < 1000; ++round) {
            NorvAnalytics::sendEventWithPageName(prefix + std::to_string(round));
            unflushed += NorvAnalytics::flush(std::chrono::seconds(2)) ? 0 : 1;
        }
    };
    std::thread other(sendAndFlush, "b");
    sendAndFlush("a");
    other.join();
    EXPECT_EQ(unflushed.load(), 0);
    EXPECT_EQ(harness.http->requests().size(), 2000U);
}

// A turn that took an event before consent was withdrawn builds nothing after the call returns
// (the call waits for the build in progress) and hands nothing of it to the client.
TEST(Outbox, AFenceWaitsForATurnsBuildAndItsEventNeverReachesTheClient) {
    ReportingHarness harness;
    std::promise<void> building;
    std::atomic<bool> released{false};
    harness.device->whileReading = std::make_shared<const std::function<void()>>([&] {
        if (!released) {
            building.set_value();
            while (!released) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    });
    const std::uint64_t discarded = NorvAnalytics::discardedWithoutConsentCount();
    NorvAnalytics::sendEventWithPageName("taken-before");
    building.get_future().wait();
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        released = true;
    });
    NorvAnalytics::setCollectionAllowed(false);
    EXPECT_TRUE(released);
    releaser.join();
    NorvAnalytics::setCollectionAllowed(true);
    harness.device->whileReading.store(nullptr);
    EXPECT_EQ(harness.http->requests().size(), 0U);
    EXPECT_EQ(NorvAnalytics::discardedWithoutConsentCount(), discarded + 1);
}

TEST(Outbox, AFullWaitingListDropsTheOldestCountsItAndEndsItsTicket) {
    // The byte limit of the middle row has room for two waiting page events, not three.
    const std::size_t pageEventBytes =
        EventRecord{EventTable::texts({.value = "0.000000", .eventTypeId = "7", .pageName = "p"})}
            .bytes();
    struct Row {
        std::size_t maxEvents, maxBytes, kept;
    };
    for (const Row row : {Row{3, 1 << 20, 3}, Row{100, 2 * pageEventBytes + pageEventBytes / 2, 2},
                          Row{0, 1 << 20, 1}}) {
        ReportingHarness harness;
        std::size_t warnings = 0;
        Platform::setDiagnosticsSink(
            [&](DiagnosticLevel level, auto&) { warnings += level == DiagnosticLevel::Warning; });
        std::ranges::for_each(pages(0, kWindow), &NorvAnalytics::sendEventWithPageName);
        ASSERT_EQ(harness.http->requests().size(), kWindow);
        NorvAnalytics::setWaitingEventLimits(row.maxEvents, row.maxBytes);
        const std::uint64_t droppedBefore = NorvAnalytics::droppedEventCount();
        std::ranges::for_each(pages(kWindow, kWindow + 10), &NorvAnalytics::sendEventWithPageName);
        EXPECT_EQ(NorvAnalytics::droppedEventCount() - droppedBefore, 10 - row.kept);
        harness.waitForDiagnostics();
        EXPECT_EQ(warnings, 1U);
        while (harness.http->answerAll(200, "") > 0) {
        }
        // Nothing is left to wait for, but the flush after a drop says that not all arrived.
        EXPECT_FALSE(NorvAnalytics::flush(std::chrono::milliseconds(0)));
        EXPECT_TRUE(NorvAnalytics::flush(std::chrono::milliseconds(0)));
        const std::vector<std::string> sent = sentPages(harness);
        EXPECT_EQ(std::vector(sent.begin() + kWindow, sent.end()),
                  pages(kWindow + 10 - row.kept, kWindow + 10));
        Platform::setDiagnosticsSink(nullptr);
        NorvAnalytics::setWaitingEventLimits(Outbox::kDefaultMaxEvents,
                                             Outbox::kDefaultMaxBytes);
    }
}

}  // namespace
}  // namespace NorvAnalytic
