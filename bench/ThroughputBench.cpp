#include <NorvAnalytic/CurlHttpClient.h>
#include <NorvAnalytic/KeychainBackend.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <benchmark/benchmark.h>

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "CompletionCounter.h"

#include "ResidentMemory.h"

// Events per second delivered end to end: public event calls on one host thread, the SDK's
// HTTP client, a real server on loopback (bench/run-throughput.sh starts nginx and passes its
// URL in NORV_THROUGHPUT_URL), every answer handed back to the SDK's main queue.
namespace {

using NorvAnalytic::NorvAnalytics;

constexpr int kEvents = 100'000;

using NorvAnalytic::Bench::residentKilobytes;

using NorvAnalytic::Bench::peakResidentKilobytes;

// Installed for the whole process and never destroyed: their completions may outlive main.
const std::shared_ptr<NorvAnalytic::CurlHttpClient>& curlClient() {
    static const auto* client = new std::shared_ptr<NorvAnalytic::CurlHttpClient>(
        std::make_shared<NorvAnalytic::CurlHttpClient>());
    return *client;
}

const std::shared_ptr<CompletionCounter>& completionCounter() {
    static const auto* counter =
        new std::shared_ptr<CompletionCounter>(std::make_shared<CompletionCounter>(curlClient()));
    return *counter;
}

// User and system CPU time of the whole process (every thread), in microseconds.
double cpuMicroseconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto micros = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    };
    return micros(usage.ru_utime) + micros(usage.ru_stime);
}

// A burst of events from one host thread, timed until the main queue has handled every answer.
void BM_DeliverEvents(benchmark::State& state) {
    CompletionCounter& client = *completionCounter();
    const double before = residentKilobytes();
    const double cpuBefore = cpuMicroseconds();
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (int event = 0; event < kEvents; ++event) {
            NorvAnalytics::sendEventWithPageName(std::string("Settings"));
        }
        if (!client.waitForAll(std::chrono::minutes(5))) {
            state.SkipWithError("not every event was delivered within five minutes");
        }
        NorvAnalytic::MainQueue::main().sync([] {});
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["events_per_s"] = kEvents / seconds;
    state.counters["cpu_us_per_event"] = (cpuMicroseconds() - cpuBefore) / kEvents;
    state.counters["VmRSS_before_kB"] = before;
    state.counters["VmRSS_after_kB"] = residentKilobytes();
    state.counters["VmHWM_kB"] = peakResidentKilobytes();
    state.counters["dropped"] = static_cast<double>(curlClient()->droppedRequests());
    state.counters["answers_not_200"] = static_cast<double>(client.notDelivered());
}
// Three runs in one process: after the first, memory must stay where it is.
BENCHMARK(BM_DeliverEvents)->Iterations(1)->Repetitions(3)->UseRealTime()->Unit(
    benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    const char* url = std::getenv("NORV_THROUGHPUT_URL");
    if (url == nullptr) {
        std::cerr << "throughput_bench: set NORV_THROUGHPUT_URL (bench/run-throughput.sh does)\n";
        return 2;
    }
    const std::filesystem::path directory =
        std::filesystem::temp_directory_path() /
        ("norv-throughput-bench-" + std::to_string(getpid()));
    NorvAnalytic::Platform::setKeychainBackend(
        NorvAnalytic::KeychainBackend::makeFileBackend((directory / "keychain.sqlite").string()));
    if (const char* caFile = std::getenv("NORV_THROUGHPUT_CA")) {
        curlClient()->setCaInfo(caFile);
    }
    if (const char* depth = std::getenv("NORV_THROUGHPUT_PIPELINE")) {
        curlClient()->setPipelineDepth(std::strtoul(depth, nullptr, 10));
    }
    NorvAnalytic::Platform::setHttpClient(completionCounter());
    NorvAnalytics::initWithKey(std::string("bench-key"));
    NorvAnalytics::sharedController().setUrlString(std::string(url));

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(directory);
    return 0;
}
