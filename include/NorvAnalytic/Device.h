#pragma once

#include <NorvAnalytic/Export.h>

#include <string>

namespace NorvAnalytic {

// Facts about the device the host runs on.
class NORVANALYTIC_EXPORT Device {
public:
    virtual ~Device() = default;
    virtual std::string systemVersion() = 0;
    virtual void setBatteryMonitoringEnabled(bool enabled) = 0;
    // 0.0 to 1.0, or -1.0 when unknown or while monitoring is off.
    virtual float batteryLevel() = 0;
    virtual std::string machineIdentifier() = 0;
};

}  // namespace NorvAnalytic
