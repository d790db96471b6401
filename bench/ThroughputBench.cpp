#include <NorvAnalytic/CurlHttpClient.h>
#include <NorvAnalytic/KeychainBackend.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <benchmark/benchmark.h>

#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "BurstSize.h"
#include "CompletionCounter.h"
#include "FormBody.h"
#include "ProcessCpu.h"
#include "ResidentMemory.h"

// Events per second delivered end to end: public event calls on one host thread, the SDK's
// HTTP client, a real server on loopback (bench/run-throughput.sh starts nginx and passes its
// URL in NORV_THROUGHPUT_URL), every answer handed back to the SDK's main queue. The scratch
// directory (under TMPDIR) holds the keychain and, as XDG_DATA_HOME, the persistent queue's file.
namespace {

using NorvAnalytic::NorvAnalytics;

const int kEvents = NorvAnalytic::Bench::burstSize();

using NorvAnalytic::Bench::residentKilobytes;

using NorvAnalytic::Bench::peakResidentKilobytes;

using NorvAnalytic::Bench::cpuMicroseconds;

// What the kernel counts as written to storage for this process so far ("write_bytes" of
// /proc/self/io, every thread, counted as pages are dirtied). Writes to tmpfs count nothing.
double writtenBytes() {
    std::ifstream io("/proc/self/io");
    std::string field;
    double value = 0.0;
    while (io >> field >> value) {
        if (field == "write_bytes:") {
            return value;
        }
    }
    return 0.0;
}

bool onTmpfs(const std::filesystem::path& directory) {
    struct statfs filesystem {};
    return statfs(directory.c_str(), &filesystem) == 0 && filesystem.f_type == TMPFS_MAGIC;
}

const std::filesystem::path& scratchDirectory() {
    static const std::filesystem::path directory =
        std::filesystem::temp_directory_path() /
        ("norv-throughput-bench-" + std::to_string(getpid()));
    return directory;
}

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

// Passes requests on, or, while closed, holds them: a network that takes nothing, so that
// every event of a burst waits.
class Gate final : public NorvAnalytic::HttpClient {
public:
    void send(NorvAnalytic::HttpRequest request, Completion completion) override {
        {
            std::lock_guard lock(mutex_);
            if (closed_) {
                held_.emplace_back(std::move(request), std::move(completion));
                return;
            }
        }
        completionCounter()->send(std::move(request), std::move(completion));
    }
    void close() {
        std::lock_guard lock(mutex_);
        closed_ = true;
    }
    void open() {
        std::vector<std::pair<NorvAnalytic::HttpRequest, Completion>> held;
        {
            std::lock_guard lock(mutex_);
            closed_ = false;
            held.swap(held_);
        }
        for (auto& [request, completion] : held) {
            completionCounter()->send(std::move(request), std::move(completion));
        }
    }

private:
    std::mutex mutex_;
    bool closed_ = false;
    std::vector<std::pair<NorvAnalytic::HttpRequest, Completion>> held_;
};

const std::shared_ptr<Gate>& gate() {
    static const auto* instance = new std::shared_ptr<Gate>(std::make_shared<Gate>());
    return *instance;
}

// What a waiting event costs: a burst sent while the network takes nothing, the growth of
// resident memory divided by the events. Run first, before delivery has warmed the heap.
void BM_WaitingEvents(benchmark::State& state) {
    const double before = residentKilobytes();
    for (auto _ : state) {
        gate()->close();
        for (int event = 0; event < kEvents; ++event) {
            NorvAnalytics::sendEventWithPageName(std::string("Settings"));
        }
    }
    state.counters["bytes_per_waiting_event"] = (residentKilobytes() - before) * 1024 / kEvents;
    gate()->open();
    if (!NorvAnalytics::flush(std::chrono::minutes(5))) {
        state.SkipWithError("the waiting events were not delivered within five minutes");
    }
}
BENCHMARK(BM_WaitingEvents)->Iterations(1)->Unit(benchmark::kMillisecond);

// Times `burst` once per iteration, kEvents requests each: their rate and CPU per event.
template <typename Burst>
void timeBursts(benchmark::State& state, Burst burst) {
    const double cpuBefore = cpuMicroseconds();
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        burst();
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["events_per_s"] = kEvents / seconds;
    state.counters["cpu_us_per_event"] = (cpuMicroseconds() - cpuBefore) / kEvents;
}

// The burst both deliveries time: kEvents calls, then a flush.
void sendBurst(benchmark::State& state) {
    timeBursts(state, [&] {
        for (int event = 0; event < kEvents; ++event) {
            NorvAnalytics::sendEventWithPageName(std::string("Settings"));
        }
        if (!NorvAnalytics::flush(std::chrono::minutes(5))) {
            state.SkipWithError("not every event was delivered within five minutes");
        }
    });
}

// A burst of events from one host thread, timed until the main queue has handled every answer:
// through a host's client that wraps CurlHttpClient and counts completions (argument 0), or
// straight to CurlHttpClient (argument 1).
void BM_DeliverEvents(benchmark::State& state) {
    CompletionCounter& client = *completionCounter();
    const bool direct = state.range(0) == 1;
    if (direct) {
        NorvAnalytic::Platform::setHttpClient(curlClient());
    }
    const double before = residentKilobytes();
    sendBurst(state);
    state.counters["VmRSS_before_kB"] = before;
    state.counters["VmRSS_after_kB"] = residentKilobytes();
    state.counters["VmHWM_kB"] = peakResidentKilobytes();
    state.counters["dropped"] = static_cast<double>(NorvAnalytics::droppedEventCount());
    state.counters["answers_not_200"] = static_cast<double>(client.notDelivered());
    NorvAnalytic::Platform::setHttpClient(gate());
}
// Three runs of each in one process: after the first, memory must stay where it is.
BENCHMARK(BM_DeliverEvents)
    ->ArgName("direct")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Repetitions(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// The SDK's HTTP client alone, with no event behind a request: the burst's POSTs, each with its
// own copy of one body, from one host thread, with at most the SDK's window (256) unanswered and
// the thread woken when half of it is free, as the SDK's is. Beside libcurl alone it is the cost
// of the transport (its thread, options, hand-over and completions); beside the events, the cost
// of everything else.
void BM_ClientAlone(benchmark::State& state) {
    constexpr int kWindow = 256;
    const NorvAnalytic::HttpRequest request{"POST", std::getenv("NORV_THROUGHPUT_URL"),
                                            std::string(NorvAnalytic::Bench::kFormBody)};
    std::mutex mutex;
    std::condition_variable roomMade;
    int unanswered = 0;
    std::atomic<int> notDelivered = 0;
    const auto answered = [&](std::optional<std::string>,
                              std::optional<NorvAnalytic::HttpResponse> response,
                              std::optional<NorvAnalytic::Error>) {
        if (!response || response->statusCode != 200) {
            notDelivered.fetch_add(1, std::memory_order_relaxed);
        }
        std::lock_guard lock(mutex);
        --unanswered;
        if (unanswered == kWindow / 2 || unanswered == 0) {
            roomMade.notify_one();
        }
    };
    timeBursts(state, [&] {
        for (int event = 0; event < kEvents; ++event) {
            {
                std::unique_lock lock(mutex);
                roomMade.wait(lock, [&] { return unanswered < kWindow; });
                ++unanswered;
            }
            curlClient()->send(request, answered);
        }
        std::unique_lock lock(mutex);
        roomMade.wait(lock, [&] { return unanswered == 0; });
    });
    state.counters["answers_not_200"] = notDelivered.load();
}
BENCHMARK(BM_ClientAlone)
    ->Iterations(1)
    ->Repetitions(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// The wrapped burst again with the persistent queue on: flush returns once
// every event was written to the queue file, delivered, and taken out of the file again. Peak
// memory counts from this run's start; disk_bytes_per_event is the write amplification.
void BM_DeliverEventsPersisted(benchmark::State& state) {
    if (onTmpfs(scratchDirectory())) {
        state.SkipWithError("the scratch directory is on tmpfs, which counts no disk writes: "
                            "point TMPDIR at a disk");
        return;
    }
    NorvAnalytic::Platform::setHttpClient(completionCounter());
    NorvAnalytics::setPersistentQueue(true);
    std::ofstream("/proc/self/clear_refs") << "5";  // VmHWM starts again from VmRSS
    const std::uint64_t droppedBefore = NorvAnalytics::droppedEventCount();
    const std::size_t notDeliveredBefore = completionCounter()->notDelivered();
    const double writtenBefore = writtenBytes();
    sendBurst(state);
    state.counters["disk_bytes_per_event"] = (writtenBytes() - writtenBefore) / kEvents;
    state.counters["VmHWM_kB"] = peakResidentKilobytes();
    state.counters["dropped"] =
        static_cast<double>(NorvAnalytics::droppedEventCount() - droppedBefore);
    state.counters["answers_not_200"] =
        static_cast<double>(completionCounter()->notDelivered() - notDeliveredBefore);
    NorvAnalytics::setPersistentQueue(false);
    NorvAnalytic::Platform::setHttpClient(gate());
}
BENCHMARK(BM_DeliverEventsPersisted)
    ->Iterations(1)
    ->Repetitions(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    const char* url = std::getenv("NORV_THROUGHPUT_URL");
    if (url == nullptr) {
        std::cerr << "throughput_bench: set NORV_THROUGHPUT_URL (bench/run-throughput.sh does)\n";
        return 2;
    }
    const std::filesystem::path& directory = scratchDirectory();
    // Before any thread of ours starts: the SDK reads it when it opens the queue file.
    setenv("XDG_DATA_HOME", directory.c_str(), 1);
    std::filesystem::create_directories(directory);
    NorvAnalytic::Platform::setKeychainBackend(
        NorvAnalytic::KeychainBackend::makeFileBackend((directory / "keychain.sqlite").string()));
    if (const char* caFile = std::getenv("NORV_THROUGHPUT_CA")) {
        curlClient()->setCaInfo(caFile);
    }
    NorvAnalytic::Platform::setHttpClient(gate());
    NorvAnalytics::initWithKey(std::string("bench-key"));
    NorvAnalytics::sharedController().setUrlString(std::string(url));

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(directory);
    return 0;
}
