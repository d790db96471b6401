#include "reporting/RequestBody.h"

#include "BuildConfig.h"
#include "reporting/TextFormat.h"

namespace NorvAnalytic {

namespace {

// The server keeps at most this many UTF-16 units of the host's parameters and response.
constexpr std::size_t kDescriptionLimit = 200;
constexpr std::string_view kProtocolVersion = "1.7.4";

std::string cutDescription(const Text& object) {
    return TextFormat::prefixUtf16(TextFormat::validUtf8(TextFormat::describe(object)),
                                   kDescriptionLimit);
}

// Absent values leave their pair out.
void appendIfPresent(std::string& body, std::string_view key, const Text& value) {
    if (value) {
        RequestBody::append(body, key, *value);
    }
}

}  // namespace

void RequestBody::append(std::string& body, std::string_view key, std::string_view value) {
    // Nothing is escaped: the collector splits the pairs exactly as they are written here.
    if (!body.empty()) {
        body += '&';
    }
    body += key;
    body += '=';
    TextFormat::appendValidUtf8(body, value);
}

std::string RequestBody::build(const EventFields& event, const DeviceFacts& device) {
    // Built in a buffer each thread keeps, then copied out at its exact size: a body may wait
    // in the HTTP client, and growth slack would wait with it.
    thread_local std::string buffer;
    buffer.clear();
    appendTo(buffer, event, device);
    return buffer;
}

void RequestBody::appendTo(std::string& body, const EventFields& event, const DeviceFacts& device) {
    appendIfPresent(body, "key", device.key);
    append(body, "value", TextFormat::decimal(event.value));
    appendIfPresent(body, "type", event.typeId);
    appendIfPresent(body, "endpoint", event.endpoint);
    append(body, "parameters", cutDescription(event.parameters));
    append(body, "response", cutDescription(event.response));
    append(body, "device_uuid", device.deviceUUID);
    appendIfPresent(body, "pageName", event.pageName);
    appendIfPresent(body, "player_id", event.playerId);
    append(body, "vbf_version", device.sdkVersion);
    appendIfPresent(body, "username", event.username);
    appendIfPresent(body, "warehouse", event.warehouse);
    appendIfPresent(body, "error", event.error);
    appendIfPresent(body, "deviceCustomName", event.deviceCustomName);
    appendIfPresent(body, "device_name", event.deviceName);
    appendIfPresent(body, "device_model", device.deviceModel);
    append(body, "system_version", device.systemVersion);
    if (device.batteryLevel) {
        append(body, "batteryLevel", TextFormat::decimal(*device.batteryLevel * 100.0F));
        appendIfPresent(body, "user_id", device.userId);
    }
    append(body, "is_test_device", "1");
    append(body, "version", kProtocolVersion);
    append(body, "is_simulator", BuildConfig::kSimulatorBuild ? "1" : "0");
}

}  // namespace NorvAnalytic
