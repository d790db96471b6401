#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include "BuildConfig.h"
#include "keychain/KeychainItemCache.h"
#include "platform/Diagnostics.h"
#include "reporting/AnswerBatch.h"
#include "reporting/ControllerState.h"
#include "reporting/DeviceIdentity.h"
#include "reporting/EventCatalogue.h"
#include "reporting/EventSubmission.h"
#include "reporting/EventsInFlight.h"
#include "reporting/RequestBody.h"
#include "reporting/SentEvent.h"
#include "reporting/TextFormat.h"

namespace NorvAnalytic {

namespace {

struct Destination {
    Text key;
    Text url;
};

std::optional<Destination> destinationIfEnabled() {
    return ControllerState::locked([](const ControllerState& state) {
        return state.isEnabled ? std::optional<Destination>({state.key, state.urlString})
                               : std::nullopt;
    });
}

DeviceFacts gatherFacts(const Text& key, const Text& typeId) {
    const std::shared_ptr<Device> device = Platform::device();
    DeviceFacts facts{
        .key = key,
        .deviceUUID = NorvAnalytics::getNorvAnalyticUUID(),
        .sdkVersion =
            TextFormat::version(Bundle::bundleWithIdentifier(BuildConfig::kSdkBundleIdentifier)),
        .deviceModel = NorvAnalytics::sharedController().getDeviceModel(),
        .systemVersion = device->systemVersion(),
    };
    if (EventCatalogue::isAppOpen(typeId)) {
        device->setBatteryMonitoringEnabled(true);
        facts.batteryLevel = device->batteryLevel();
        device->setBatteryMonitoringEnabled(false);
        facts.userId = KeychainItemCache::shared()
                           .item(*DeviceIdentity::userIdKey(), *DeviceIdentity::service())
                           .value;
    }
    return facts;
}

}  // namespace

std::string& NorvAnalytics::addObject(const Text& object, const std::string& key,
                                      std::string& body) {
    if (object) {
        RequestBody::append(body, key, *object);
    }
    return body;
}

void NorvAnalytics::sendEventWithTypeId(const Text& typeId, float value, const Text& endpoint,
                                        const Text& parameters, const Text& response,
                                        const Text& pageName, const Text& playerId,
                                        const Text& username, const Text& warehouse,
                                        const Text& error, const Text& deviceCustomName,
                                        const Text& deviceName, bool isSavedEvent) {
    submitEvent({typeId, value, endpoint, parameters, response, pageName, playerId, username,
                 warehouse, error, deviceCustomName, deviceName},
                isSavedEvent);
}

namespace {

void sendEvent(const EventFields& event, bool isSavedEvent) {
    const std::optional<Destination> destination = destinationIfEnabled();
    if (!destination || !destination->url) {
        if (Diagnostics::isOn()) {
            Diagnostics::report(DiagnosticLevel::Info,
                                EventCatalogue::describe(event.typeId) + " dropped: " +
                                    (destination ? "there is no collection URL"
                                                 : "collection is off (before initWithKey, or "
                                                   "switched off by the server)"));
        }
        return;
    }
    auto sent = std::make_shared<const SentEvent>(
        event, SentEvent::share(gatherFacts(destination->key, event.typeId)), isSavedEvent);
    std::string body = RequestBody::build(event, sent->facts());
    Platform::httpClient()->send(
        HttpRequest{"POST", *destination->url, std::move(body)},
        [sent = std::move(sent), ticket = EventsInFlight::begin()](
            std::optional<std::string> data, std::optional<HttpResponse> httpResponse,
            std::optional<std::string> transportError) mutable {
            // Answers change shared state, so they are handled one by one on the main queue.
            AnswerBatch::add({std::move(sent), std::move(data), httpResponse,
                              std::move(transportError), std::move(ticket)});
        });
}

}  // namespace

void submitEvent(const EventFields& event, bool isSavedEvent) {
    try {
        sendEvent(event, isSavedEvent);
    } catch (...) {
        // Out of memory: this one event is dropped, and the host's call returns as usual.
    }
}

}  // namespace NorvAnalytic
