#include <NorvAnalytic/Connection.h>

#include <benchmark/benchmark.h>

#include <fstream>
#include <string>

#include "ResidentMemory.h"

namespace {

using NorvAnalytic::Bench::residentKilobytes;

// The resend loop's connectivity test, over and over: a new Connection and one status each
// time. Memory must not grow with the number of queries.
void BM_InternetConnectionStatus(benchmark::State& state) {
    // One warm-up query, so the service and its target exist before the first reading.
    benchmark::DoNotOptimize(
        NorvAnalytic::Connection::reachabilityForInternetConnection()->currentReachabilityStatus());
    const double before = residentKilobytes();
    for (auto _ : state) {
        auto connection = NorvAnalytic::Connection::reachabilityForInternetConnection();
        benchmark::DoNotOptimize(connection->currentReachabilityStatus());
    }
    const double after = residentKilobytes();
    state.counters["VmRSS_before_kB"] = before;
    state.counters["VmRSS_after_kB"] = after;
    state.counters["VmRSS_growth_kB"] = after - before;
}
BENCHMARK(BM_InternetConnectionStatus)->Iterations(1'000'000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
