#include "platform/LinuxDevice.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sys/utsname.h>

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

}  // namespace

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
    const auto& capacityFile = batteryCapacityFile();
    if (!capacityFile) {
        return -1.0F;
    }
    const std::string capacity = readFirstLine(*capacityFile);
    int percent = -1;
    const auto result = std::from_chars(capacity.data(), capacity.data() + capacity.size(), percent);
    if (result.ec == std::errc() && percent >= 0 && percent <= 100) {
        return static_cast<float>(percent) / 100.0F;
    }
    return -1.0F;
}

std::string LinuxDevice::machineIdentifier() { return machineIdentifier_; }

}  // namespace NorvAnalytic
