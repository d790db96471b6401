#include <NorvAnalytic/NorvAnalytics.h>

#include "events/EventCatalogue.h"
#include "events/TextFormat.h"
#include "facade/EventSubmission.h"
#include "facade/CollectionConsent.h"
#include "facade/RequestStartTimes.h"

namespace NorvAnalytic {

namespace {

using enum EventCatalogue::Index;

// The event of a catalogue type with this value and the host's texts in `event`.
void send(const Text& typeId, float value, Event event) {
    event.eventTypeId = typeId;
    event.value = TextFormat::decimal(value);
    submitEvent(event, false);
}

void send(EventCatalogue::Index index, float value, Event event) {
    send(EventCatalogue::typeId(index), value, std::move(event));
}

}  // namespace

// The four single-field calls carry no type id: the server files them under the device.
void NorvAnalytics::sendUsername(const Text& username) {
    send(std::nullopt, 0.0F, {.username = username});
}

void NorvAnalytics::sendWarehouse(const Text& warehouse) {
    send(std::nullopt, 0.0F, {.warehouse = warehouse});
}

void NorvAnalytics::sendError(const Text& error) { send(std::nullopt, 0.0F, {.error = error}); }

void NorvAnalytics::sendDeviceName(const Text& deviceName) {
    send(std::nullopt, 0.0F, {.deviceName = deviceName});
}

void NorvAnalytics::sendEventWithPlayerId(const Text& playerId) {
    send(PushSubscriber, 0.0F, {.player_id = playerId});
}

void NorvAnalytics::sendEventWithPageName(const Text& pageName) {
    send(PageOpen, 0.0F, {.pageName = pageName});
}

void NorvAnalytics::sendUserLoginEventWithParameters(const Text& parameters, const Text& response) {
    send(UserLogin, 0.0F, {.parameters = parameters, .response = response});
}

void NorvAnalytics::sendUserLoginEventWithParameters(const Text& parameters, const Text& response,
                                                     const Text& username) {
    send(UserLogin, 0.0F, {.parameters = parameters, .response = response, .username = username});
}

void NorvAnalytics::sendUserLoginEventWithParameters(const Text& parameters, const Text& response,
                                                     const Text& username, const Text& warehouse) {
    send(UserLogin, 0.0F,
         {.parameters = parameters,
          .response = response,
          .username = username,
          .warehouse = warehouse});
}

void NorvAnalytics::sendUserCanNotLoginEventWithParameters(const Text& parameters,
                                                           const Text& response) {
    send(UserCanNotLogin, 0.0F, {.parameters = parameters, .response = response});
}

void NorvAnalytics::sendUserCanNotLoginEventWithParameters(const Text& parameters,
                                                           const Text& response,
                                                           const Text& error) {
    send(UserCanNotLogin, 0.0F, {.parameters = parameters, .response = response, .error = error});
}

void NorvAnalytics::sendUserLogoutEvent() { send(UserLogout, 0.0F, {}); }

void NorvAnalytics::sendDeviceCustomName(const Text& deviceCustomName) {
    send(DeviceCustomName, 0.0F, {.deviceCustomName = deviceCustomName});
}

void NorvAnalytics::sendLocationServiceStatusEventWithValue(std::int64_t value) {
    send(LocationServiceStatus, static_cast<float>(value), {});
}

void NorvAnalytics::sendBluetoothStatusEventWithValue(std::int64_t value) {
    send(BluetoothStatus, static_cast<float>(value), {});
}

void NorvAnalytics::sendExternalAccessoryBatteryIsLowEvent() {
    send(ExternalAccessoryBatteryLow, 0.0F, {});
}

void NorvAnalytics::sendExternalAccessoryBatteryStatusWithValue(std::int64_t value) {
    send(ExternalAccessoryBatteryStatus, static_cast<float>(value), {});
}

void NorvAnalytics::sendAppOpenEventWithDeviceName(const Text& deviceName) {
    send(AppOpen, 1.0F, {.deviceName = deviceName});
}

void NorvAnalytics::sendAppOpenEvent() { send(AppOpen, 1.0F, {}); }

void NorvAnalytics::sendAppOpenEventWithUsername(const Text& username) {
    send(AppOpen, 1.0F, {.username = username});
}

void NorvAnalytics::sendAppOpenEventWithUsername(const Text& username, const Text& deviceName) {
    send(AppOpen, 1.0F, {.username = username, .deviceName = deviceName});
}

// App close is reported under the app-open type; the server tells them apart by the value 0.
void NorvAnalytics::sendAppCloseEvent() { send(AppOpen, 0.0F, {}); }

void NorvAnalytics::sendDataNotRetrievedEventWithEndpoint(const Text& endpoint,
                                                          const Text& parameters,
                                                          const Text& response) {
    send(DataNotRetrieved, 0.0F,
         {.endpoint = endpoint, .parameters = parameters, .response = response});
}

void NorvAnalytics::sendEventWithType(std::int32_t type, float value, const Text& endpoint,
                                      const Text& parameters, const Text& response) {
    send(EventCatalogue::typeId(type), value,
         {.endpoint = endpoint, .parameters = parameters, .response = response});
}

void NorvAnalytics::sendRequestStartTime(const std::optional<Date>& startTime,
                                         const Text& endpoint) {
    // A start is the user's data too: none is noted while collection is not allowed.
    if (!startTime || !endpoint || !CollectionConsent::allowed()) {
        return;
    }
    RequestStartTimes::shared().set(*endpoint, *startTime);
}

void NorvAnalytics::sendRequestEndTime(const std::optional<Date>& endTime, const Text& endpoint,
                                       const Text& parameters, const Text& response) {
    if (!endpoint) {
        return;
    }
    const std::optional<Date> start = RequestStartTimes::shared().take(*endpoint);
    if (!start) {
        return;
    }
    const double elapsed = endTime ? std::chrono::duration<double>(*endTime - *start).count() : 0.0;
    send(ResponseTime, static_cast<float>(elapsed),
         {.endpoint = endpoint, .parameters = parameters, .response = response});
}

// The one entry every event call could take: the same record, its fields given one by one.
void NorvAnalytics::sendEventWithTypeId(const Text& typeId, float value, const Text& endpoint,
                                        const Text& parameters, const Text& response,
                                        const Text& pageName, const Text& playerId,
                                        const Text& username, const Text& warehouse,
                                        const Text& error, const Text& deviceCustomName,
                                        const Text& deviceName, bool isSavedEvent) {
    submitEvent(
        {
            .value = TextFormat::decimal(value),
            .eventTypeId = typeId,
            .endpoint = endpoint,
            .parameters = parameters,
            .response = response,
            .pageName = pageName,
            .player_id = playerId,
            .username = username,
            .warehouse = warehouse,
            .error = error,
            .deviceCustomName = deviceCustomName,
            .deviceName = deviceName,
        },
        isSavedEvent);
}

}  // namespace NorvAnalytic
