#pragma once

#include <NorvAnalytic/Types.h>

#include <optional>
#include <string>
#include <string_view>

#include "reporting/EventFields.h"

namespace NorvAnalytic {

// What the SDK adds to every event about the app and the device, and where the event goes.
struct DeviceFacts {
    Text key;
    std::string deviceUUID;
    std::string sdkVersion;
    Text deviceModel;
    std::string systemVersion;
    // Only app-open events carry these two.
    std::optional<float> batteryLevel = std::nullopt;
    Text userId = std::nullopt;
    std::string url = std::string();

    bool operator==(const DeviceFacts&) const = default;
};

// The form body of one event, built from the event's fields and the device's facts alone.
class RequestBody {
public:
    static std::string build(const EventFields& event, const DeviceFacts& device);
    // Appends "key=value" ("&" first unless the body is empty), the value as valid UTF-8.
    static void append(std::string& body, std::string_view key, std::string_view value);

private:
    static void appendTo(std::string& body, const EventFields& event, const DeviceFacts& device);
};

}  // namespace NorvAnalytic
