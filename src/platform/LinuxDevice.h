#pragma once

#include <NorvAnalytic/Device.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace NorvAnalytic {

// The machine the host runs on: the distribution's version, the first battery in sysfs, and
// the kernel's machine name.
class LinuxDevice final : public Device {
public:
    // Both roots are parameters so that a test can point them at a tree of its own.
    explicit LinuxDevice(std::string osReleasePath = "/etc/os-release",
                         std::string powerSupplyRoot = "/sys/class/power_supply");
    ~LinuxDevice() override;
    LinuxDevice(const LinuxDevice&) = delete;
    LinuxDevice& operator=(const LinuxDevice&) = delete;

    std::string systemVersion() override;
    void setBatteryMonitoringEnabled(bool enabled) override;
    // The level our thread (norv-battery) read last: a battery's file may take an embedded
    // controller's round trip to answer, which no caller's thread waits for. A call asks for
    // a fresh reading unless the last is under a second old; only the first waits, briefly.
    float batteryLevel() override;
    std::string machineIdentifier() override;

private:
    // The capacity file of the first battery, looked up once: batteries do not come and go
    // under a running host, and every app-open event reads the level.
    const std::optional<std::filesystem::path>& batteryCapacityFile();
    float readBatteryLevel();
    void refreshBatteryLevel();
    void stopRefreshing();

    std::string powerSupplyRoot_;
    std::once_flag batteryLookup_;
    std::optional<std::filesystem::path> batteryCapacityFile_;
    std::string systemVersion_;
    std::string machineIdentifier_;
    // Monitoring is counted so that one thread switching it off cannot blind another's read.
    std::atomic<int> monitoring_{0};

    std::mutex batteryMutex_;
    std::condition_variable batteryChanged_;
    std::thread batteryThread_;
    float batteryLevel_ = -1.0F;
    bool batteryRead_ = false;
    std::chrono::steady_clock::time_point batteryReadAt_;
    bool batteryWanted_ = false;
    bool batteryThreadRunning_ = false;
    bool stopping_ = false;
};

}  // namespace NorvAnalytic
