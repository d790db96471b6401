#include "platform/LinuxDevice.h"

#include <sys/utsname.h>

#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "platform/SdkThread.h"

namespace NorvAnalytic {

namespace {

std::string readFirstLine(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

std::string osReleaseVersion(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VERSION_ID=", 0) == 0) {
            std::string value = line.substr(11);
            if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
                value.back() == value.front()) {
                value = value.substr(1, value.size() - 2);
            }
            return value;
        }
    }
    return {};
}

// The first reading is waited for this long; a battery slower than that reads as unknown once.
constexpr std::chrono::milliseconds kFirstReadingWait{50};
// A reading this young is given as it is: a level moves by the minute, and a burst of app-open
// events would otherwise start a thread for each.
constexpr std::chrono::seconds kFreshReading{1};

// The devices alive, so that their threads are ended at exit.
struct LiveDevices {
    std::mutex mutex;
    std::set<LinuxDevice*> devices;
};

LiveDevices& liveDevices() {
    static auto* live = new LiveDevices();
    return *live;
}

}  // namespace

LinuxDevice::~LinuxDevice() {
    {
        const std::lock_guard lock(liveDevices().mutex);
        liveDevices().devices.erase(this);
    }
    stopRefreshing();
}

void LinuxDevice::stopRefreshing() {
    {
        const std::lock_guard lock(batteryMutex_);
        stopping_ = true;
    }
    batteryChanged_.notify_all();
    if (batteryThread_.joinable() && batteryThread_.get_id() != std::this_thread::get_id()) {
        batteryThread_.join();
    }
}

LinuxDevice::LinuxDevice(std::string osReleasePath, std::string powerSupplyRoot)
    : powerSupplyRoot_(std::move(powerSupplyRoot)) {
    utsname names{};
    ::uname(&names);
    machineIdentifier_ = names.machine;
    // Read once: the system's version does not change under a running process.
    systemVersion_ = osReleaseVersion(osReleasePath);
    if (systemVersion_.empty()) {
        systemVersion_ = names.release;
    }
    static std::once_flag registered;
    std::call_once(registered, [] {
        std::atexit([] {
            const std::lock_guard lock(liveDevices().mutex);
            for (LinuxDevice* device : liveDevices().devices) {
                device->stopRefreshing();
            }
        });
    });
    const std::lock_guard lock(liveDevices().mutex);
    liveDevices().devices.insert(this);
}

std::string LinuxDevice::systemVersion() { return systemVersion_; }

void LinuxDevice::setBatteryMonitoringEnabled(bool enabled) {
    if (enabled) {
        monitoring_.fetch_add(1);
    } else if (monitoring_.fetch_sub(1) <= 0) {
        monitoring_.fetch_add(1);
    }
}

const std::optional<std::filesystem::path>& LinuxDevice::batteryCapacityFile() {
    std::call_once(batteryLookup_, [this] {
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(powerSupplyRoot_, error)) {
            if (readFirstLine(entry.path() / "type") == "Battery") {
                batteryCapacityFile_ = entry.path() / "capacity";
                return;
            }
        }
    });
    return batteryCapacityFile_;
}

float LinuxDevice::batteryLevel() {
    if (monitoring_.load() <= 0) {
        return -1.0F;
    }
    std::unique_lock lock(batteryMutex_);
    if (batteryRead_ && std::chrono::steady_clock::now() - batteryReadAt_ < kFreshReading) {
        return batteryLevel_;
    }
    batteryWanted_ = true;
    if (!batteryThreadRunning_ && !stopping_) {
        if (batteryThread_.joinable()) {
            batteryThread_.join();
        }
        try {
            batteryThread_ = startSdkThread("norv-battery", [this] { refreshBatteryLevel(); });
            batteryThreadRunning_ = true;
        } catch (const std::system_error&) {
            return batteryLevel_;
        }
    }
    batteryChanged_.notify_all();
    batteryChanged_.wait_for(lock, kFirstReadingWait, [this] { return batteryRead_; });
    return batteryLevel_;
}

// Reads while readings are asked for, then ends: an app-open event is rare, and a thread
// kept for the next one would only sleep, or wake for nothing.
void LinuxDevice::refreshBatteryLevel() {
    std::unique_lock lock(batteryMutex_);
    while (!stopping_ && batteryWanted_) {
        batteryWanted_ = false;
        lock.unlock();
        const float level = readBatteryLevel();
        lock.lock();
        batteryLevel_ = level;
        batteryRead_ = true;
        batteryReadAt_ = std::chrono::steady_clock::now();
        batteryChanged_.notify_all();
    }
    batteryThreadRunning_ = false;
}

float LinuxDevice::readBatteryLevel() {
    const auto& capacityFile = batteryCapacityFile();
    if (!capacityFile) {
        return -1.0F;
    }
    const std::string capacity = readFirstLine(*capacityFile);
    int percent = -1;
    const auto result =
        std::from_chars(capacity.data(), capacity.data() + capacity.size(), percent);
    if (result.ec == std::errc() && percent >= 0 && percent <= 100) {
        return static_cast<float>(percent) / 100.0F;
    }
    return -1.0F;
}

std::string LinuxDevice::machineIdentifier() { return machineIdentifier_; }

}  // namespace NorvAnalytic
