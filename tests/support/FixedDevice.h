#pragma once

#include <NorvAnalytic/Device.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace NorvAnalytic::Testing {

// A device with chosen facts, standing in for a phone: its model, system and battery are
// whatever the test says.
class FixedDevice final : public Device {
public:
    FixedDevice(std::string machine, std::string systemVersion, float batteryLevel)
        : machine_(std::move(machine)),
          systemVersion_(std::move(systemVersion)),
          batteryLevel_(batteryLevel) {}

    std::string systemVersion() override {
        if (const auto reading = whileReading.load()) {
            (*reading)();
        }
        return systemVersion_;
    }
    void setBatteryMonitoringEnabled(bool enabled) override { monitoring_ += enabled ? 1 : -1; }
    // Like the platform, the level reads as unknown while monitoring is off.
    float batteryLevel() override { return monitoring_ > 0 ? batteryLevel_.load() : -1.0F; }
    std::string machineIdentifier() override { return machine_; }
    void setBatteryLevel(float level) { batteryLevel_ = level; }
    // Runs inside each read of the facts, on the SDK's thread: a test can hold a build there.
    std::atomic<std::shared_ptr<const std::function<void()>>> whileReading;

private:
    std::string machine_;
    std::string systemVersion_;
    std::atomic<float> batteryLevel_;
    std::atomic<int> monitoring_{0};
};

}  // namespace NorvAnalytic::Testing
