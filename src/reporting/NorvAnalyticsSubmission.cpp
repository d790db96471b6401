#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include "BuildConfig.h"
#include "reporting/DeviceIdentity.h"
#include "reporting/TextFormat.h"

namespace NorvAnalytic {

namespace {

// The server keeps at most this many UTF-16 units of the host's parameters and response.
constexpr std::size_t kDescriptionLimit = 200;
constexpr const char* kAppOpenTypeId = "2";
constexpr const char* kProtocolVersion = "1.7.4";

std::string cutDescription(const Text& object) {
    return TextFormat::prefixUtf16(TextFormat::validUtf8(TextFormat::describe(object)),
                                   kDescriptionLimit);
}

}  // namespace

std::string& NorvAnalytics::addObject(const Text& object, const std::string& key,
                                      std::string& body) {
    if (!object) {
        return body;
    }
    // Nothing is escaped: the collector splits the pairs exactly as they are written here.
    if (!body.empty()) {
        body += '&';
    }
    body += key;
    body += '=';
    TextFormat::appendValidUtf8(body, *object);
    return body;
}

void NorvAnalytics::sendEventWithTypeId(const Text& typeId, float value, const Text& endpoint,
                                        const Text& parameters, const Text& response,
                                        const Text& pageName, const Text& playerId,
                                        const Text& username, const Text& warehouse,
                                        const Text& error, const Text& deviceCustomName,
                                        const Text& deviceName, bool isSavedEvent) {
    NorvAnalytics& controller = sharedController();
    Text key;
    Text url;
    {
        std::lock_guard lock(controller.mutex_);
        if (!controller.isEnabled_) {
            return;
        }
        key = controller.key_;
        url = controller.urlString_;
    }

    const std::string deviceUUID = getNorvAnalyticUUID();
    const std::string vbfVersion =
        TextFormat::version(Bundle::bundleWithIdentifier(BuildConfig::kSdkBundleIdentifier));
    const Text deviceModel = controller.getDeviceModel();
    const std::shared_ptr<Device> device = Platform::device();
    const std::string systemVersion = device->systemVersion();
    const std::string responseText = cutDescription(response);
    const std::string parametersText = cutDescription(parameters);

    std::string body;
    body.reserve(512);
    addObject(key, "key", body);
    addObject(TextFormat::decimal(value), "value", body);
    addObject(typeId, "type", body);
    addObject(endpoint, "endpoint", body);
    addObject(parametersText, "parameters", body);
    addObject(responseText, "response", body);
    addObject(deviceUUID, "device_uuid", body);
    addObject(pageName, "pageName", body);
    addObject(playerId, "player_id", body);
    addObject(vbfVersion, "vbf_version", body);
    addObject(username, "username", body);
    addObject(warehouse, "warehouse", body);
    addObject(error, "error", body);
    addObject(deviceCustomName, "deviceCustomName", body);
    addObject(deviceName, "device_name", body);
    addObject(deviceModel, "device_model", body);
    addObject(systemVersion, "system_version", body);
    if (typeId == kAppOpenTypeId) {
        device->setBatteryMonitoringEnabled(true);
        const float percent = device->batteryLevel() * 100.0F;
        addObject(TextFormat::decimal(percent), "batteryLevel", body);
        device->setBatteryMonitoringEnabled(false);
        addObject(
            Keychain::itemForKey(DeviceIdentity::userIdKey(), DeviceIdentity::service(), nullptr),
            "user_id", body);
    }
    addObject(std::string("1"), "is_test_device", body);
    addObject(std::string(kProtocolVersion), "version", body);
    addObject(std::string(BuildConfig::kSimulatorBuild ? "1" : "0"), "is_simulator", body);

    if (!url) {
        return;
    }
    EventResponseContext context{typeId,     endpoint,   parameters, response, pageName,
                                 playerId,   username,   warehouse,  error,    deviceCustomName,
                                 deviceName, deviceUUID, body,       value,    isSavedEvent};
    Platform::httpClient()->send(
        HttpRequest{"POST", *url, std::move(body)},
        [context = std::move(context)](std::optional<std::string> data,
                                       std::optional<HttpResponse> httpResponse,
                                       std::optional<std::string> transportError) mutable {
            // Answers change shared state, so they are handled one by one on the main queue.
            MainQueue::main().async([context = std::move(context), data = std::move(data),
                                     httpResponse, transportError = std::move(transportError)] {
                handleEventResponse(context, data, httpResponse, transportError);
            });
        });
}

}  // namespace NorvAnalytic
