#pragma once

#include <NorvAnalytic/Device.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

namespace NorvAnalytic {

// The machine the host runs on: the distribution's version, the first battery in sysfs, and
// the kernel's machine name.
class LinuxDevice final : public Device {
public:
    // Both roots are parameters so that a test can point them at a tree of its own.
    explicit LinuxDevice(std::string osReleasePath = "/etc/os-release",
                         std::string powerSupplyRoot = "/sys/class/power_supply");

    std::string systemVersion() override;
    void setBatteryMonitoringEnabled(bool enabled) override;
    float batteryLevel() override;
    std::string machineIdentifier() override;

private:
    // The capacity file of the first battery, looked up once: batteries do not come and go
    // under a running host, and every app-open event reads the level.
    const std::optional<std::filesystem::path>& batteryCapacityFile();

    std::string powerSupplyRoot_;
    std::once_flag batteryLookup_;
    std::optional<std::filesystem::path> batteryCapacityFile_;
    std::string systemVersion_;
    std::string machineIdentifier_;
    // Monitoring is counted so that one thread switching it off cannot blind another's read.
    std::atomic<int> monitoring_{0};
};

}  // namespace NorvAnalytic
