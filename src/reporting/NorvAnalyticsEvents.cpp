#include <NorvAnalytic/NorvAnalytics.h>

#include "reporting/EventCatalogue.h"
#include "reporting/EventSubmission.h"
#include "reporting/RequestStartTimes.h"

namespace NorvAnalytic {

namespace {

void send(const EventFields& event) { submitEvent(event, false); }

Text typeId(EventCatalogue::Index index) { return EventCatalogue::typeId(index); }

using enum EventCatalogue::Index;

}  // namespace

// The four single-field calls carry no type id: the server files them under the device.
void NorvAnalytics::sendUsername(const Text& username) { send({.username = username}); }

void NorvAnalytics::sendWarehouse(const Text& warehouse) { send({.warehouse = warehouse}); }

void NorvAnalytics::sendError(const Text& error) { send({.error = error}); }

void NorvAnalytics::sendDeviceName(const Text& deviceName) { send({.deviceName = deviceName}); }

void NorvAnalytics::sendEventWithPlayerId(const Text& playerId) {
    send({.typeId = typeId(PlayerId), .playerId = playerId});
}

void NorvAnalytics::sendEventWithPageName(const Text& pageName) {
    send({.typeId = typeId(PageOpen), .pageName = pageName});
}

void NorvAnalytics::sendUserLoginEventWithParameters(const Text& parameters, const Text& response) {
    send({.typeId = typeId(UserLogin), .parameters = parameters, .response = response});
}

void NorvAnalytics::sendUserLoginEventWithParameters(const Text& parameters, const Text& response,
                                                     const Text& username) {
    send({.typeId = typeId(UserLogin),
          .parameters = parameters,
          .response = response,
          .username = username});
}

void NorvAnalytics::sendUserLoginEventWithParameters(const Text& parameters, const Text& response,
                                                     const Text& username, const Text& warehouse) {
    send({.typeId = typeId(UserLogin),
          .parameters = parameters,
          .response = response,
          .username = username,
          .warehouse = warehouse});
}

void NorvAnalytics::sendUserCanNotLoginEventWithParameters(const Text& parameters,
                                                           const Text& response) {
    send({.typeId = typeId(UserCanNotLogin), .parameters = parameters, .response = response});
}

void NorvAnalytics::sendUserCanNotLoginEventWithParameters(const Text& parameters,
                                                           const Text& response,
                                                           const Text& error) {
    send({.typeId = typeId(UserCanNotLogin),
          .parameters = parameters,
          .response = response,
          .error = error});
}

void NorvAnalytics::sendUserLogoutEvent() { send({.typeId = typeId(UserLogout)}); }

void NorvAnalytics::sendDeviceCustomName(const Text& deviceCustomName) {
    send({.typeId = typeId(DeviceCustomName), .deviceCustomName = deviceCustomName});
}

void NorvAnalytics::sendLocationServiceStatusEventWithValue(std::int64_t value) {
    send({.typeId = typeId(LocationServiceStatus), .value = static_cast<float>(value)});
}

void NorvAnalytics::sendBluetoothStatusEventWithValue(std::int64_t value) {
    send({.typeId = typeId(BluetoothStatus), .value = static_cast<float>(value)});
}

void NorvAnalytics::sendExternalAccessoryBatteryIsLowEvent() {
    send({.typeId = typeId(ExternalAccessoryBatteryLow)});
}

void NorvAnalytics::sendExternalAccessoryBatteryStatusWithValue(std::int64_t value) {
    send({.typeId = typeId(ExternalAccessoryBatteryStatus), .value = static_cast<float>(value)});
}

void NorvAnalytics::sendAppOpenEventWithDeviceName(const Text& deviceName) {
    send({.typeId = typeId(AppOpen), .value = 1.0F, .deviceName = deviceName});
}

void NorvAnalytics::sendAppOpenEvent() { send({.typeId = typeId(AppOpen), .value = 1.0F}); }

void NorvAnalytics::sendAppOpenEventWithUsername(const Text& username) {
    send({.typeId = typeId(AppOpen), .value = 1.0F, .username = username});
}

void NorvAnalytics::sendAppOpenEventWithUsername(const Text& username, const Text& deviceName) {
    send(
        {.typeId = typeId(AppOpen), .value = 1.0F, .username = username, .deviceName = deviceName});
}

// App close is reported under the app-open type; the server tells them apart by the value 0.
void NorvAnalytics::sendAppCloseEvent() { send({.typeId = typeId(AppOpen), .value = 0.0F}); }

void NorvAnalytics::sendDataNotRetrievedEventWithEndpoint(const Text& endpoint,
                                                          const Text& parameters,
                                                          const Text& response) {
    send({.typeId = typeId(DataNotRetrieved),
          .endpoint = endpoint,
          .parameters = parameters,
          .response = response});
}

void NorvAnalytics::sendEventWithType(std::int32_t type, float value, const Text& endpoint,
                                      const Text& parameters, const Text& response) {
    send({.typeId = EventCatalogue::typeId(type),
          .value = value,
          .endpoint = endpoint,
          .parameters = parameters,
          .response = response});
}

void NorvAnalytics::sendRequestStartTime(const std::optional<Date>& startTime,
                                         const Text& endpoint) {
    if (!startTime || !endpoint) {
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
    send({.typeId = typeId(ResponseTime),
          .value = static_cast<float>(elapsed),
          .endpoint = endpoint,
          .parameters = parameters,
          .response = response});
}

}  // namespace NorvAnalytic
