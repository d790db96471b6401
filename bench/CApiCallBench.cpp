// What the C API adds to a call: each norv_ function beside its C++ twin, in the same process
// on the same SDK. The HTTP client answers every request at once inside send(), so no network
// runs beside the calls and the waiting events never pile up. Compare the pairs' times.
#include <NorvAnalytic/KeychainBackend.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/norv.h>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

namespace {

using NorvAnalytic::NorvAnalytics;

class AnsweringHttpClient final : public NorvAnalytic::HttpClient {
public:
    void send(NorvAnalytic::HttpRequest, Completion completion) override {
        completion(std::string(R"({"message":"Event saved","code":200,"payload":null})"),
                   NorvAnalytic::HttpResponse{200}, std::nullopt);
    }
};

void startSdk() {
    static const bool started = [] {
        const auto directory = std::filesystem::temp_directory_path() /
                               ("norv-capi-bench-" + std::to_string(getpid()));
        std::filesystem::create_directories(directory);
        NorvAnalytic::Platform::setKeychainBackend(
            NorvAnalytic::KeychainBackend::makeFileBackend((directory / "keychain.sqlite").string()));
        NorvAnalytic::Platform::setHttpClient(std::make_shared<AnsweringHttpClient>());
        NorvAnalytic::Platform::setLogSink([](const std::string&) {});
        NorvAnalytics::initWithKey(std::string("bench-key"));
        NorvAnalytics::setSecureUrl(false);
        return true;
    }();
    benchmark::DoNotOptimize(started);
}

// Between runs: every event of the last run answered, so runs do not inherit a backlog.
void settle() { NorvAnalytics::flush(std::chrono::seconds(60)); }

void BM_Cpp_sendEventWithPageName(benchmark::State& state) {
    startSdk();
    settle();
    for (auto _ : state) {
        NorvAnalytics::sendEventWithPageName(std::string("Settings"));
    }
}

void BM_C_norv_send_event_with_page_name(benchmark::State& state) {
    startSdk();
    settle();
    for (auto _ : state) {
        norv_send_event_with_page_name("Settings");
    }
}

void BM_Cpp_sendUserLoginEventWithParameters(benchmark::State& state) {
    startSdk();
    settle();
    for (auto _ : state) {
        NorvAnalytics::sendUserLoginEventWithParameters(
            std::string(R"({"username":"alice"})"), std::string(R"({"token":"abc"})"),
            std::string("alice"), std::string("north"));
    }
}

void BM_C_norv_send_user_login_event(benchmark::State& state) {
    startSdk();
    settle();
    for (auto _ : state) {
        norv_send_user_login_event(R"({"username":"alice"})", R"({"token":"abc"})", "alice",
                                   "north");
    }
}

// Calls that do almost nothing: the C layer's own cost, unhidden.
void BM_Cpp_droppedEventCount(benchmark::State& state) {
    startSdk();
    for (auto _ : state) {
        benchmark::DoNotOptimize(NorvAnalytics::droppedEventCount());
    }
}

void BM_C_norv_dropped_event_count(benchmark::State& state) {
    startSdk();
    for (auto _ : state) {
        benchmark::DoNotOptimize(norv_dropped_event_count());
    }
}

void BM_Cpp_getNorvAnalyticUUID(benchmark::State& state) {
    startSdk();
    for (auto _ : state) {
        benchmark::DoNotOptimize(NorvAnalytics::getNorvAnalyticUUID());
    }
}

void BM_C_norv_get_uuid(benchmark::State& state) {
    startSdk();
    char buffer[40];
    for (auto _ : state) {
        benchmark::DoNotOptimize(norv_get_uuid(buffer, sizeof buffer));
    }
}

}  // namespace

BENCHMARK(BM_Cpp_sendEventWithPageName);
BENCHMARK(BM_C_norv_send_event_with_page_name);
BENCHMARK(BM_Cpp_sendUserLoginEventWithParameters);
BENCHMARK(BM_C_norv_send_user_login_event);
BENCHMARK(BM_Cpp_droppedEventCount);
BENCHMARK(BM_C_norv_dropped_event_count);
BENCHMARK(BM_Cpp_getNorvAnalyticUUID);
BENCHMARK(BM_C_norv_get_uuid);

BENCHMARK_MAIN();
