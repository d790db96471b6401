#include <NorvAnalytic/HttpClient.h>
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "keychain/FileKeychainBackend.h"

namespace {

// A file keychain in a private temporary directory, installed for one benchmark.
class TemporaryKeychain {
public:
    TemporaryKeychain() {
        std::string pattern = std::filesystem::temp_directory_path() / "norv-bench-XXXXXX";
        directory_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
        NorvAnalytic::Platform::setKeychainBackend(
            std::make_shared<NorvAnalytic::FileKeychainBackend>(directory_ / "keychain.sqlite"));
    }
    const std::filesystem::path& directory() const { return directory_; }
    ~TemporaryKeychain() {
        NorvAnalytic::Platform::setKeychainBackend(nullptr);
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    TemporaryKeychain(const TemporaryKeychain&) = delete;
    TemporaryKeychain& operator=(const TemporaryKeychain&) = delete;

private:
    std::filesystem::path directory_;
};

// What every event costs its caller's thread: the device UUID read from the keychain.
void BM_DeviceUuidRead(benchmark::State& state) {
    const TemporaryKeychain keychain;
    NorvAnalytic::Keychain::saveItem("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0", "device_uuid",
                                     "NorvAnalyticDeviceUUID", nullptr);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            NorvAnalytic::Keychain::itemForKey("device_uuid", "NorvAnalyticDeviceUUID", nullptr));
    }
}
BENCHMARK(BM_DeviceUuidRead)->Unit(benchmark::kMicrosecond);

// The user id read of app-open events when the host never stored one.
void BM_MissingUserIdRead(benchmark::State& state) {
    const TemporaryKeychain keychain;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            NorvAnalytic::Keychain::itemForKey("user_id", "NorvAnalyticDeviceUUID", nullptr));
    }
}
BENCHMARK(BM_MissingUserIdRead)->Unit(benchmark::kMicrosecond);

// A save of a changed value: lookup, then update in one WAL commit.
void BM_UserIdSave(benchmark::State& state) {
    const TemporaryKeychain keychain;
    int counter = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(NorvAnalytic::Keychain::saveItem(
            "user-" + std::to_string(++counter), "user_id", "NorvAnalyticDeviceUUID", nullptr));
    }
}
BENCHMARK(BM_UserIdSave)->Unit(benchmark::kMicrosecond);

// The device UUID as an event call gets it: from memory once the store has been read.
void BM_EventCallIdentityRead(benchmark::State& state) {
    const TemporaryKeychain keychain;
    NorvAnalytic::NorvAnalytics::saveStoreUserID(std::string("user-1"));
    for (auto _ : state) {
        benchmark::DoNotOptimize(NorvAnalytic::NorvAnalytics::getNorvAnalyticUUID());
    }
}
BENCHMARK(BM_EventCallIdentityRead)->Unit(benchmark::kMicrosecond);

using Clock = std::chrono::steady_clock;
std::string self;

// Runs this program again in one of the roles below and waits for it; its exit status.
int runRole(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {self};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (auto& argument : argv) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    pid_t child = 0;
    if (::posix_spawn(&child, self.c_str(), nullptr, nullptr, pointers.data(), environ) != 0) {
        return -1;
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string nanosecondsText(Clock::time_point point) {
    return std::to_string(std::chrono::nanoseconds(point.time_since_epoch()).count());
}

Clock::time_point fromNanosecondsText(const char* text) {
    return Clock::time_point(std::chrono::nanoseconds(std::atoll(text)));
}

std::atomic<int> savesMade = 0;

// Four threads save and delete the user id until the end; the saves that failed.
int contend(Clock::time_point end) {
    std::atomic<int> lost = 0;
    std::vector<std::jthread> writers;
    for (int writer = 0; writer < 4; ++writer) {
        writers.emplace_back([&, writer] {
            for (int round = 0; Clock::now() < end; ++round) {
                if (!NorvAnalytic::Keychain::saveItem(
                        "user-" + std::to_string(writer) + "-" + std::to_string(round), "user_id",
                        "NorvAnalyticDeviceUUID", nullptr)) {
                    ++lost;
                }
                ++savesMade;
                NorvAnalytic::Keychain::deleteItemForKey("user_id", "NorvAnalyticDeviceUUID",
                                                         nullptr);
            }
        });
    }
    writers.clear();
    return lost;
}

// Keeps the event calls' cost to the SDK's own share: no delivery beside the writers.
class DiscardingHttpClient final : public NorvAnalytic::HttpClient {
public:
    void send(NorvAnalytic::HttpRequest, Completion) override {}
};

// Two processes of four threads save and delete the user id for a second while a fifth
// thread here sends app-open events (which carry the user id): the event calls' latency,
// the calls over 1 ms, and the saves lost in both processes. Arg 0 runs no writers, for the
// side-by-side baseline.
void BM_EventCallsBesideKeychainContention(benchmark::State& state) {
    const TemporaryKeychain keychain;
    const auto delivering = NorvAnalytic::Platform::httpClient();
    NorvAnalytic::Platform::setHttpClient(std::make_shared<DiscardingHttpClient>());
    NorvAnalytic::NorvAnalytics::initWithKey(std::string("bench-key"));
    NorvAnalytic::NorvAnalytics::sharedController().setUrlString(
        std::string("http://127.0.0.1:9/api/v3/saveEvent"));
    std::vector<std::int64_t> samples;
    int lost = 0;
    for (auto _ : state) {
        const Clock::time_point end = Clock::now() + std::chrono::seconds(1);
        std::jthread child;
        int childLost = 0;
        if (state.range(0) != 0) {
            child = std::jthread([&] {
                childLost =
                    runRole({"contend", keychain.directory().string(), nanosecondsText(end)});
            });
        }
        std::jthread writers([&] { lost += state.range(0) != 0 ? contend(end) : 0; });
        while (Clock::now() < end) {
            const Clock::time_point start = Clock::now();
            NorvAnalytic::NorvAnalytics::sendAppOpenEvent();
            samples.push_back(
                std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
        }
        writers.join();
        if (child.joinable()) {
            child.join();
            // A child that could not run would hide its writes: count it as lost.
            lost += childLost >= 0 ? childLost : 1'000'000;
        }
    }
    NorvAnalytic::Platform::setHttpClient(delivering);
    std::sort(samples.begin(), samples.end());
    state.counters["median_ns"] = static_cast<double>(samples[samples.size() / 2]);
    state.counters["p99_ns"] = static_cast<double>(samples[samples.size() * 99 / 100]);
    state.counters["calls"] = static_cast<double>(samples.size());
    state.counters["max_ns"] = static_cast<double>(samples.back());
    state.counters["calls_over_1ms"] = static_cast<double>(
        samples.end() - std::upper_bound(samples.begin(), samples.end(), 1'000'000));
    state.counters["lost_saves"] = lost;
    state.counters["saves_here"] = savesMade.exchange(0);
}
BENCHMARK(BM_EventCallsBesideKeychainContention)
    ->Arg(0)
    ->Arg(1)
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Each iteration: a fresh store, two processes of four threads and four threads here ask
// for the device UUID at one instant. Counts the trials that ended with one UUID.
void BM_ConcurrentFirstStart(benchmark::State& state) {
    int oneUuidTrials = 0;
    int trials = 0;
    for (auto _ : state) {
        const TemporaryKeychain keychain;
        const Clock::time_point start = Clock::now() + std::chrono::milliseconds(100);
        std::set<std::string> uuids;
        std::mutex mutex;
        {
            std::vector<std::jthread> callers;
            for (int child = 0; child < 2; ++child) {
                callers.emplace_back([&] {
                    runRole({"first-start", keychain.directory().string(), nanosecondsText(start)});
                });
            }
            for (int caller = 0; caller < 4; ++caller) {
                callers.emplace_back([&] {
                    std::this_thread::sleep_until(start);
                    const std::string uuid = NorvAnalytic::NorvAnalytics::getNorvAnalyticUUID();
                    const std::lock_guard lock(mutex);
                    uuids.insert(uuid);
                });
            }
        }
        for (const auto& entry : std::filesystem::directory_iterator(keychain.directory())) {
            if (entry.path().filename().string().starts_with("uuid-")) {
                std::string uuid;
                std::ifstream(entry.path()) >> uuid;
                uuids.insert(uuid);
            }
        }
        ++trials;
        oneUuidTrials += uuids.size() == 1 ? 1 : 0;
    }
    state.counters["trials"] = trials;
    state.counters["one_uuid_trials"] = oneUuidTrials;
}
BENCHMARK(BM_ConcurrentFirstStart)->Iterations(100)->Unit(benchmark::kMillisecond)->UseRealTime();

// The second process of the two benchmarks above, on the file keychain in <directory>.
int runChildRole(const std::string& role, const std::string& directory, const char* time) {
    NorvAnalytic::Platform::setKeychainBackend(
        std::make_shared<NorvAnalytic::FileKeychainBackend>(directory + "/keychain.sqlite"));
    if (role == "contend") {
        return std::min(contend(fromNanosecondsText(time)), 255);
    }
    std::vector<std::jthread> callers;
    for (int caller = 0; caller < 4; ++caller) {
        callers.emplace_back([&, caller] {
            std::this_thread::sleep_until(fromNanosecondsText(time));
            std::ofstream(directory + "/uuid-" + std::to_string(::getpid()) + "-" +
                          std::to_string(caller))
                << NorvAnalytic::NorvAnalytics::getNorvAnalyticUUID();
        });
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    self = std::filesystem::read_symlink("/proc/self/exe");
    if (argc == 4 &&
        (std::strcmp(argv[1], "contend") == 0 || std::strcmp(argv[1], "first-start") == 0)) {
        return runChildRole(argv[1], argv[2], argv[3]);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
