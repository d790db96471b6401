#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/HttpClient.h>
#include <NorvAnalytic/KeychainBackend.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "ResidentMemory.h"
#include "events/SavedEvents.h"

// What the events kept for resending cost, and that the bound holds that cost: against a
// server that refuses every event, a host keeps far more events than the saved list may hold.
namespace {

using NorvAnalytic::NorvAnalytics;
using NorvAnalytic::SavedEvents;
using NorvAnalytic::Bench::residentKilobytes;

// Refuses every event at once, with a body, as a server answering 503 does: each is kept.
class RefusingServer final : public NorvAnalytic::HttpClient {
public:
    void send(NorvAnalytic::HttpRequest, Completion completion) override {
        completion(std::string(R"({"message":"busy"})"), NorvAnalytic::HttpResponse{503},
                   std::nullopt);
    }
};

// Sends count events, all refused, and returns once every one has been kept.
void keepEvents(int count) {
    for (int event = 0; event < count; ++event) {
        NorvAnalytics::sendEventWithPageName(std::string("Settings / Notifications / Sounds"));
    }
    NorvAnalytics::flush(std::chrono::minutes(1));
    NorvAnalytic::MainQueue::main().sync([] {});
}

// Keeps 50,000 refused events in steps of 10,000 under the default bound of 10,000 (argument
// 0): the first step shows what a kept event costs, the four after it that memory stays where
// it was. Without a bound (argument 1), for comparison, it grows with every step.
void BM_KeptEventsBeyondTheBound(benchmark::State& state) {
    constexpr int kStep = 10'000;
    constexpr int kSteps = 5;
    std::string scratch = std::filesystem::temp_directory_path() / "norv-bench-XXXXXX";
    if (::mkdtemp(scratch.data()) == nullptr) {
        state.SkipWithError("no temporary directory");
        return;
    }
    NorvAnalytic::Platform::setKeychainBackend(
        NorvAnalytic::KeychainBackend::makeFileBackend(scratch + "/keychain.sqlite"));
    NorvAnalytic::Platform::setHttpClient(std::make_shared<RefusingServer>());
    NorvAnalytics::initWithKey(std::string("bench-key"));
    NorvAnalytics::sharedController().setUrlString("http://127.0.0.1:9/api/v3/saveEvent");
    // Warm-up: the SDK's threads, the keychain and the first heap arenas, before measuring.
    keepEvents(100);
    NorvAnalytic::MainQueue::main().sync([] { NorvAnalytic::Event::savedEvents().clear(); });
    if (state.range(0) == 1) {
        NorvAnalytics::setSavedEventLimits(SIZE_MAX, SIZE_MAX);
    }
    const std::uint64_t droppedBefore = SavedEvents::droppedCount();

    double before = 0;
    double atBound = 0;
    double peakBeyond = 0;
    for (auto _ : state) {
        before = residentKilobytes();
        keepEvents(kStep);
        atBound = residentKilobytes();
        for (int step = 1; step < kSteps; ++step) {
            keepEvents(kStep);
            peakBeyond = std::max(peakBeyond, residentKilobytes());
        }
    }
    std::size_t kept = 0;
    std::size_t accounted = 0;
    NorvAnalytic::MainQueue::main().sync([&] {
        const auto& events = NorvAnalytic::Event::savedEvents();
        kept = events.size();
        for (const auto& event : events) {
            accounted += SavedEvents::bytes(*event);
        }
    });
    state.counters["kept"] = static_cast<double>(kept);
    state.counters["dropped"] = static_cast<double>(SavedEvents::droppedCount() - droppedBefore);
    state.counters["accounted_bytes_per_kept_event"] = static_cast<double>(accounted) / kept;
    state.counters["rss_bytes_per_kept_event"] = (atBound - before) * 1024 / kStep;
    state.counters["VmRSS_at_bound_kB"] = atBound;
    state.counters["VmRSS_growth_beyond_bound_kB"] = peakBeyond - atBound;
    NorvAnalytic::MainQueue::main().sync([] { NorvAnalytic::Event::savedEvents().clear(); });
    NorvAnalytics::setSavedEventLimits(SavedEvents::kDefaultMaxEvents,
                                       SavedEvents::kDefaultMaxBytes);
    NorvAnalytic::Platform::setKeychainBackend(nullptr);
    std::error_code ignored;
    std::filesystem::remove_all(scratch, ignored);
}
BENCHMARK(BM_KeptEventsBeyondTheBound)
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
