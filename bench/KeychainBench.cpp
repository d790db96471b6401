#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>

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

}  // namespace

BENCHMARK_MAIN();
