#include <NorvAnalytic/NorvAnalytics.h>

#include <benchmark/benchmark.h>

#include "ResidentMemory.h"

namespace {

using NorvAnalytic::Bench::residentKilobytes;

// The resend loop's connectivity test, over and over: each call makes a new Connection and
// reads its status. Memory must not grow with the number of calls.
void BM_HasConnection(benchmark::State& state) {
    auto& controller = NorvAnalytic::NorvAnalytics::sharedController();
    // One warm-up query, so the service and its target exist before the first reading.
    benchmark::DoNotOptimize(controller.hasConnection());
    const double before = residentKilobytes();
    for (auto _ : state) {
        benchmark::DoNotOptimize(controller.hasConnection());
    }
    const double after = residentKilobytes();
    state.counters["VmRSS_before_kB"] = before;
    state.counters["VmRSS_after_kB"] = after;
    state.counters["VmRSS_growth_kB"] = after - before;
}
BENCHMARK(BM_HasConnection)->Iterations(1'000'000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
