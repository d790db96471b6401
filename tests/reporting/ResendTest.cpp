#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "events/SavedEvents.h"
#include "support/ReportingHarness.h"

namespace NorvAnalytic {
namespace {

using Lines = std::vector<std::string>;
using Testing::ReportingHarness;

// Sends a page event for each name, every one refused, so that all of them are kept.
void refusedPages(ReportingHarness& harness, const Lines& names) {
    for (const auto& name : names) {
        NorvAnalytics::sendEventWithPageName(name);
    }
    harness.http->answerAll(500, R"({"message":"refused"})");
    harness.http->clear();
}

Lines savedPages() {
    Lines names;
    MainQueue::main().sync([&] {
        for (const auto& event : Event::savedEvents()) {
            names.push_back(event->pageName.value_or(""));
        }
    });
    return names;
}

std::string pageBody(ReportingHarness& harness, const std::string& name) {
    return harness.body({.typeId = "7", .pageName = name});
}

TEST(Resend, RefusedEventsReturnOnePerTickOldestFirstAndOnlyOnce) {
    ReportingHarness harness;
    refusedPages(harness, {"A", "B", "C"});
    // No route, or no answer about one: the ticks log and send nothing.
    harness.reachability->setFlags(0);
    harness.tick();
    harness.reachability->setFlags(std::nullopt);
    harness.tick();
    harness.reachability->setFlags(kReachabilityFlagsReachable);
    EXPECT_EQ(harness.http->bodies(), Lines{});
    EXPECT_EQ(harness.log.lines(), Lines{});

    // Refused again on resend: each goes once and is gone, and an empty list is not told.
    for (int i = 0; i < 4; ++i) {
        harness.tick();
        harness.http->answerAll(500, "{}");
    }
    EXPECT_EQ(harness.http->bodies(),
              (Lines{pageBody(harness, "A"), pageBody(harness, "B"), pageBody(harness, "C")}));
    EXPECT_EQ(harness.log.lines(),
              (Lines{"There are 3 saved events to send!", "There are 2 saved events to send!",
                     "There are 1 saved events to send!"}));
    EXPECT_EQ(harness.savedCount(), 0U);
}

TEST(Resend, AResendCarriesEveryFieldAndTheValueThroughItsSixDecimalText) {
    ReportingHarness harness;
    NorvAnalytics::sendEventWithTypeId("4", 7.5F, "/a", "p", "r", "pg", "pl", "u", "w", "e", "dc",
                                       "dn", false);
    NorvAnalytics::sendEventWithType(3, 0.0000001F, "/b", std::nullopt, std::nullopt);
    harness.http->answerAll(502, "");
    const std::string full = harness.http->bodies().at(0);
    harness.http->clear();
    harness.tick();
    harness.tick();
    EXPECT_EQ(harness.http->bodies(),
              (Lines{full, harness.body({.typeId = "4", .endpoint = "/b"})}));
}

TEST(Resend, AnEventWithoutTypeHoldsTheQueueForGood) {
    ReportingHarness harness;
    NorvAnalytics::sendUsername("ann");
    refusedPages(harness, {"B"});
    for (int i = 0; i < 3; ++i) {
        harness.tick();
    }
    EXPECT_EQ(harness.http->bodies(), Lines{});
    EXPECT_EQ(harness.log.lines(), Lines(3, "There are 2 saved events to send!"));
}

TEST(Resend, EveryStartAddsATimerAndDisablingStopsOnlyTheLast) {
    ReportingHarness harness;
    refusedPages(harness, {"A", "B", "C", "D", "E", "F"});
    auto first = NorvAnalytics::sharedController().timer();
    harness.restart();
    auto second = NorvAnalytics::sharedController().timer();
    harness.restart();
    auto third = NorvAnalytics::sharedController().timer();

    // Three timers: the three oldest go out in one second.
    harness.tick();
    EXPECT_EQ(harness.http->bodies(),
              (Lines{pageBody(harness, "A"), pageBody(harness, "B"), pageBody(harness, "C")}));
    harness.http->answerAll(200, "{}");

    // The server switches collection off: only the last timer stops, and the dropped resends
    // still leave the list.
    NorvAnalytics::sendAppOpenEvent();
    harness.http->answerAll(200, R"({"payload":{"analytics_enabled":false}})");
    EXPECT_FALSE(third->isValid());
    EXPECT_TRUE(first->isValid());
    EXPECT_TRUE(second->isValid());
    harness.http->clear();
    harness.tick();
    EXPECT_EQ(harness.http->bodies(), Lines{});
    EXPECT_EQ(harness.savedCount(), 1U);
    first->invalidate();
    second->invalidate();
}

// With the queue on, events whose requests got no answer wait in the file: each reachable tick
// tries the next of them once, and the first answer lets the rest of the round follow at once.
TEST(Resend, WithTheQueueOnUnansweredEventsAreTriedOnTheTickAndFollowTheFirstAnswer) {
    const std::filesystem::path dataHome =
        std::filesystem::temp_directory_path() / ("norv-resend-" + std::to_string(::getpid()));
    ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
    {
        ReportingHarness harness;
        NorvAnalytics::setPersistentQueue(true);
        for (const char* name : {"A", "B", "C"}) {
            NorvAnalytics::sendEventWithPageName(std::string(name));
        }
        EXPECT_EQ(harness.http->failAll(), 3U);
        harness.http->clear();
        harness.tick();
        EXPECT_EQ(harness.http->bodies(), Lines{pageBody(harness, "A")});
        harness.http->failAll();
        harness.http->clear();
        harness.tick();
        EXPECT_EQ(harness.http->bodies(), Lines{pageBody(harness, "B")});
        harness.http->answerAll(200, "{}");
        EXPECT_EQ(harness.http->bodies(), (Lines{pageBody(harness, "B"), pageBody(harness, "C")}));
        harness.http->answerAll(200, "{}");
        harness.http->clear();
        // A new round starts from the oldest left; once it is answered nothing is left.
        harness.tick();
        EXPECT_EQ(harness.http->bodies(), Lines{pageBody(harness, "A")});
        harness.http->answerAll(200, "{}");
        harness.tick();
        EXPECT_EQ(harness.http->bodies(), Lines{pageBody(harness, "A")});
    }
    ::unsetenv("XDG_DATA_HOME");
    std::filesystem::remove_all(dataHome);
}

// A tick that finds nothing saved lets the resend timers rest: their ticks pass without a
// task, not even the reachability check, until an event is kept; it goes out at the next tick
// of the timer's phase, as if the timer had never stopped, and then the timers rest again.
TEST(Resend, TimersRestWhileNothingIsSavedAndKeepTheirPhase) {
    ReportingHarness harness;
    const auto halfSecond = [&] {
        harness.clock->advance(std::chrono::milliseconds(500));
        MainQueue::main().sync([] {});
    };
    harness.tick();  // finds nothing: from here on the timers rest
    const std::size_t checks = harness.reachability->getFlagsCalls();
    for (int step = 0; step < 6; ++step) {
        halfSecond();
    }
    EXPECT_EQ(harness.reachability->getFlagsCalls(), checks);

    // Kept half-way between two ticks: nothing until the next whole second, then the resend.
    halfSecond();
    refusedPages(harness, {"A"});
    EXPECT_EQ(harness.http->bodies(), Lines{});
    halfSecond();
    EXPECT_EQ(harness.http->bodies(), Lines{pageBody(harness, "A")});
    EXPECT_EQ(harness.log.lines(), Lines{"There are 1 saved events to send!"});
    harness.http->answerAll(200, "{}");
    harness.http->clear();
    harness.tick();  // finds the list empty: the timers rest again
    const std::size_t afterResend = harness.reachability->getFlagsCalls();
    for (int step = 0; step < 4; ++step) {
        harness.tick();
    }
    EXPECT_EQ(harness.reachability->getFlagsCalls(), afterResend);
    EXPECT_EQ(harness.http->bodies(), Lines{});
}

// With the queue on, an event whose request got no answer wakes resting timers: it is tried
// again at the next tick.
TEST(Resend, AnUnansweredEventWakesRestingTimers) {
    const std::filesystem::path dataHome =
        std::filesystem::temp_directory_path() / ("norv-rest-" + std::to_string(::getpid()));
    ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
    {
        ReportingHarness harness;
        NorvAnalytics::setPersistentQueue(true);
        harness.tick();
        harness.tick();  // nothing saved or unanswered: the timers rest
        NorvAnalytics::sendEventWithPageName("A");
        EXPECT_EQ(harness.http->failAll(), 1U);
        harness.http->clear();
        harness.tick();
        EXPECT_EQ(harness.http->bodies(), Lines{pageBody(harness, "A")});
        harness.http->answerAll(200, "{}");
    }
    ::unsetenv("XDG_DATA_HOME");
    std::filesystem::remove_all(dataHome);
}

TEST(Resend, BeyondEitherLimitTheOldestSavedEventsGoCountedAndSaidOncePerBurst) {
    // The byte limit of the second row holds three bare events, but two of these, whose long
    // page names take heap blocks of their own.
    const std::size_t bareEventBytes = sizeof(Event);
    struct Row {
        std::size_t maxEvents, maxBytes;
        std::string padding;
        std::size_t kept;
    };
    for (const Row& row : {Row{3, 1 << 20, "", 3}, Row{100, 3 * bareEventBytes + bareEventBytes / 2,
                                                       std::string(300, 'x'), 2}}) {
        ReportingHarness harness;
        std::size_t warnings = 0;
        Platform::setDiagnosticsSink(
            [&](DiagnosticLevel level, auto&) { warnings += level == DiagnosticLevel::Warning; });
        NorvAnalytics::setSavedEventLimits(row.maxEvents, row.maxBytes);
        const std::uint64_t droppedBefore = NorvAnalytics::droppedEventCount();
        Lines sent;
        for (int i = 0; i < 10; ++i) {
            sent.push_back(row.padding + "p" + std::to_string(i));
        }
        refusedPages(harness, sent);
        Lines kept(sent.end() - static_cast<std::ptrdiff_t>(row.kept), sent.end());
        EXPECT_EQ(savedPages(), kept);
        EXPECT_EQ(NorvAnalytics::droppedEventCount() - droppedBefore, 10 - row.kept);
        harness.waitForDiagnostics();
        EXPECT_EQ(warnings, 1U);

        // The oldest goes out; the next refusal is kept without a drop, which ends the burst,
        // so the one after it is said again.
        harness.tick();
        kept.erase(kept.begin());
        refusedPages(harness, {row.padding + "q0"});
        harness.waitForDiagnostics();
        EXPECT_EQ(warnings, 1U);
        refusedPages(harness, {row.padding + "q1"});
        kept.erase(kept.begin());
        kept.insert(kept.end(), {row.padding + "q0", row.padding + "q1"});
        EXPECT_EQ(savedPages(), kept);
        EXPECT_EQ(NorvAnalytics::droppedEventCount() - droppedBefore, 11 - row.kept);
        harness.waitForDiagnostics();
        EXPECT_EQ(warnings, 2U);

        Platform::setDiagnosticsSink(nullptr);
        NorvAnalytics::setSavedEventLimits(SavedEvents::kDefaultMaxEvents,
                                           SavedEvents::kDefaultMaxBytes);
    }
}

}  // namespace
}  // namespace NorvAnalytic
