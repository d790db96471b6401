#include <NorvAnalytic/CurlHttpClient.h>
#include <NorvAnalytic/KeychainBackend.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <benchmark/benchmark.h>
#include <httplib.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CompletionCounter.h"
#include "keychain/SecretServiceKeychainBackend.h"

// What one public event call costs the host's thread: building the event and handing it to
// the HTTP client, never waiting for the network. Delivery goes to a real server on loopback
// and is drained between runs, so one run's backlog never slows the next. Each of the three
// event calls is measured again right after itself with the persistent queue on.
namespace {

using NorvAnalytic::NorvAnalytics;
using Clock = std::chrono::steady_clock;

constexpr int kMaxThreads = 8;

// The keychain file and, through XDG_DATA_HOME, the queue file: never the user's own.
const std::filesystem::path& scratchDirectory() {
    static const std::filesystem::path directory =
        std::filesystem::temp_directory_path() /
        ("norv-event-call-bench-" + std::to_string(getpid()));
    return directory;
}

// Whether the next run measures with the persistent queue on; read before the run starts.
std::atomic<bool> persistentQueue{false};

// Answers every event at once, as a collection server that accepts everything.
class AcceptingServer {
public:
    AcceptingServer() {
        server_.set_tcp_nodelay(true);
        server_.Post("/api/v3/saveEvent", [](const httplib::Request&, httplib::Response& answer) {
            answer.set_content(R"({"message":"Event saved","code":200,"payload":null})",
                               "application/json");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    ~AcceptingServer() {
        server_.stop();
        thread_.join();
    }
    AcceptingServer(const AcceptingServer&) = delete;
    AcceptingServer& operator=(const AcceptingServer&) = delete;

    std::string url() const {
        return "http://127.0.0.1:" + std::to_string(port_) + "/api/v3/saveEvent";
    }

private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
};

// The SDK started against the local server, with a keychain of its own in a scratch directory.
class StartedSdk {
public:
    StartedSdk()
        : directory_(scratchDirectory()),
          client_(std::make_shared<CompletionCounter>(
              std::make_shared<NorvAnalytic::CurlHttpClient>())) {
        // NORV_BENCH_KEYCHAIN=secret-service measures against the Secret Service instead, in
        // the daemon's in-memory collection.
        const char* keychain = std::getenv("NORV_BENCH_KEYCHAIN");
        if (keychain != nullptr && std::string(keychain) == "secret-service") {
            NorvAnalytic::Platform::setKeychainBackend(
                std::make_shared<NorvAnalytic::SecretServiceKeychainBackend>(
                    NorvAnalytic::SecretServiceKeychainBackend::kDefaultSchemaName, "session"));
        } else {
            NorvAnalytic::Platform::setKeychainBackend(
                NorvAnalytic::KeychainBackend::makeFileBackend(
                    (directory_ / "keychain.sqlite").string()));
        }
        NorvAnalytic::Platform::setHttpClient(client_);
        NorvAnalytics::initWithKey(std::string("bench-key"));
        NorvAnalytics::sharedController().setUrlString(server_.url());
    }
    ~StartedSdk() {
        drain();
        std::filesystem::remove_all(directory_);
    }
    StartedSdk(const StartedSdk&) = delete;
    StartedSdk& operator=(const StartedSdk&) = delete;

    // Events beyond the SDK's window wait in the SDK, so it is the SDK that is waited for.
    void drain() { NorvAnalytics::flush(std::chrono::minutes(5)); }
    CompletionCounter& client() { return *client_; }
    std::string url() const { return server_.url(); }

private:
    AcceptingServer server_;
    std::filesystem::path directory_;
    std::shared_ptr<CompletionCounter> client_;
};

// Started on first use and stopped by main: the local server's threads use cpp-httplib's own
// function-local statics, which exit destroys before it would destroy a static StartedSdk,
// so a request still arriving then crashed the server's thread.
std::unique_ptr<StartedSdk>& startedSdk() {
    static std::unique_ptr<StartedSdk> started;
    return started;
}

StartedSdk& sdk() {
    if (!startedSdk()) {
        startedSdk() = std::make_unique<StartedSdk>();
    }
    return *startedSdk();
}

// Per-call times of every thread of the current run; each thread writes only its own row.
std::vector<std::vector<std::int64_t>>& samples() {
    static std::vector<std::vector<std::int64_t>> rows(kMaxThreads);
    return rows;
}

std::int64_t percentile(std::vector<std::int64_t>& sorted, double fraction) {
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(sorted.size() - 1));
    return sorted[index];
}

void measureCalls(benchmark::State& state, const std::function<void()>& call) {
    if (state.thread_index() == 0) {
        sdk().drain();
        NorvAnalytics::setPersistentQueue(persistentQueue.load());
    }
    std::vector<std::int64_t>& mine = samples()[static_cast<std::size_t>(state.thread_index())];
    // Written once before the run, so that the run's own samples fault in no fresh pages.
    mine.assign(static_cast<std::size_t>(state.max_iterations), 0);
    mine.clear();
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        call();
        mine.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start)
                           .count());
    }
    // Every thread has passed the run's closing barrier, so all rows are complete here.
    if (state.thread_index() == 0) {
        std::vector<std::int64_t> all;
        for (int thread = 0; thread < state.threads(); ++thread) {
            const auto& row = samples()[static_cast<std::size_t>(thread)];
            all.insert(all.end(), row.begin(), row.end());
        }
        std::sort(all.begin(), all.end());
        state.counters["median_ns"] = static_cast<double>(percentile(all, 0.50));
        state.counters["p99_ns"] = static_cast<double>(percentile(all, 0.99));
        state.counters["calls"] = static_cast<double>(all.size());
        state.counters["answers_not_200"] = static_cast<double>(sdk().client().notDelivered());
    }
}

void BM_sendEventWithPageName(benchmark::State& state) {
    measureCalls(state, [] { NorvAnalytics::sendEventWithPageName(std::string("Settings")); });
}

void BM_sendAppOpenEvent(benchmark::State& state) {
    measureCalls(state, [] { NorvAnalytics::sendAppOpenEvent(); });
}

void BM_sendUserLoginEventWithParameters(benchmark::State& state) {
    measureCalls(state, [] {
        NorvAnalytics::sendUserLoginEventWithParameters(
            std::string(R"({"username":"alice","warehouse":"north"})"),
            std::string(R"({"token":"abc","expires":3600})"), std::string("alice"));
    });
}

// The same benchmark with the persistent queue on, so that each event is also written to the
// queue file off the caller's thread; the queue goes off again with the next run.
template <void (*Bench)(benchmark::State&)>
void WithPersistentQueue(benchmark::State& state) {
    persistentQueue.store(true);
    Bench(state);
    persistentQueue.store(false);
}

// Drops every request: what an event call costs the SDK alone, with no delivery running on
// the machine's other threads at the same time.
class DiscardingHttpClient final : public NorvAnalytic::HttpClient {
public:
    void send(NorvAnalytic::HttpRequest, Completion) override {}
};

void BM_sendEventWithPageNameWithoutDelivery(benchmark::State& state) {
    sdk();
    const auto delivering = NorvAnalytic::Platform::httpClient();
    NorvAnalytic::Platform::setHttpClient(std::make_shared<DiscardingHttpClient>());
    measureCalls(state, [] { NorvAnalytics::sendEventWithPageName(std::string("Settings")); });
    NorvAnalytic::Platform::setHttpClient(delivering);
}

// The HTTP client's own share of every event call: queue the request and wake its thread.
void BM_CurlHttpClientSend(benchmark::State& state) {
    const std::string url = sdk().url();
    const std::string body(300, 'x');
    const NorvAnalytic::HttpClient::Completion ignoreAnswer = [](auto, auto, auto) {};
    measureCalls(state, [&] {
        sdk().client().send(NorvAnalytic::HttpRequest{"POST", url, body}, ignoreAnswer);
    });
}

// The app-open event, which reads the device UUID and the user id, with the keychain the SDK
// started on (arg 0: the file one unless NORV_BENCH_KEYCHAIN says otherwise) and with the
// Secret Service (arg 1, the daemon's in-memory collection), delivery running in both.
void BM_sendAppOpenEventOnKeychain(benchmark::State& state) {
    sdk();
    const auto started = NorvAnalytic::Platform::keychainBackend();
    if (state.range(0) == 1) {
        NorvAnalytic::Platform::setKeychainBackend(
            std::make_shared<NorvAnalytic::SecretServiceKeychainBackend>(
                NorvAnalytic::SecretServiceKeychainBackend::kDefaultSchemaName, "session"));
    }
    NorvAnalytics::saveStoreUserID(std::string("bench-user"));
    measureCalls(state, [] { NorvAnalytics::sendAppOpenEvent(); });
    NorvAnalytic::Platform::setKeychainBackend(started);
}

// Iterations are fixed so that every thread count sends a bounded number of events.
BENCHMARK(BM_sendEventWithPageName)->Iterations(20'000)->UseRealTime();
BENCHMARK_TEMPLATE(WithPersistentQueue, BM_sendEventWithPageName)->Iterations(20'000)->UseRealTime();
BENCHMARK(BM_sendEventWithPageName)->Iterations(5'000)->Threads(kMaxThreads)->UseRealTime();
BENCHMARK_TEMPLATE(WithPersistentQueue, BM_sendEventWithPageName)
    ->Iterations(5'000)
    ->Threads(kMaxThreads)
    ->UseRealTime();
BENCHMARK(BM_sendAppOpenEvent)->Iterations(20'000)->UseRealTime();
BENCHMARK_TEMPLATE(WithPersistentQueue, BM_sendAppOpenEvent)->Iterations(20'000)->UseRealTime();
BENCHMARK(BM_sendAppOpenEvent)->Iterations(5'000)->Threads(kMaxThreads)->UseRealTime();
BENCHMARK_TEMPLATE(WithPersistentQueue, BM_sendAppOpenEvent)
    ->Iterations(5'000)
    ->Threads(kMaxThreads)
    ->UseRealTime();
BENCHMARK(BM_sendUserLoginEventWithParameters)->Iterations(20'000)->UseRealTime();
BENCHMARK_TEMPLATE(WithPersistentQueue, BM_sendUserLoginEventWithParameters)
    ->Iterations(20'000)
    ->UseRealTime();
BENCHMARK(BM_sendUserLoginEventWithParameters)
    ->Iterations(5'000)
    ->Threads(kMaxThreads)
    ->UseRealTime();
BENCHMARK_TEMPLATE(WithPersistentQueue, BM_sendUserLoginEventWithParameters)
    ->Iterations(5'000)
    ->Threads(kMaxThreads)
    ->UseRealTime();
BENCHMARK(BM_sendAppOpenEventOnKeychain)
    ->ArgName("secret_service")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(20'000)
    ->UseRealTime();
BENCHMARK(BM_sendEventWithPageNameWithoutDelivery)->Iterations(20'000)->UseRealTime();
BENCHMARK(BM_CurlHttpClientSend)->Iterations(20'000)->UseRealTime();
BENCHMARK(BM_CurlHttpClientSend)->Iterations(5'000)->Threads(kMaxThreads)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    // Before any thread of ours starts: the SDK reads it when it opens the queue file.
    setenv("XDG_DATA_HOME", scratchDirectory().c_str(), 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    startedSdk().reset();
    return 0;
}
