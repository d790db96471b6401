#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include "BuildConfig.h"
#include "keychain/KeychainItemCache.h"
#include "platform/Diagnostics.h"
#include "reporting/ControllerState.h"
#include "reporting/DeviceIdentity.h"
#include "reporting/EventCatalogue.h"
#include "reporting/EventSubmission.h"
#include "reporting/OutgoingEvents.h"
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

DeviceFacts gatherFacts(const Destination& destination, const Text& typeId) {
    const std::shared_ptr<Device> device = Platform::device();
    DeviceFacts facts{
        .key = destination.key,
        .deviceUUID = NorvAnalytics::getNorvAnalyticUUID(),
        .sdkVersion =
            TextFormat::version(Bundle::bundleWithIdentifier(BuildConfig::kSdkBundleIdentifier)),
        .deviceModel = NorvAnalytics::sharedController().getDeviceModel(),
        .systemVersion = device->systemVersion(),
        .url = *destination.url,
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

void NorvAnalytics::setWaitingEventLimits(std::size_t maxEvents, std::size_t maxBytes) {
    OutgoingEvents::shared().setLimits(maxEvents, maxBytes);
}

std::uint64_t NorvAnalytics::droppedEventCount() { return OutgoingEvents::shared().droppedCount(); }

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
    OutgoingEvents::shared().submit(
        event, SentEvent::share(gatherFacts(*destination, event.typeId)), isSavedEvent);
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
