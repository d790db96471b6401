#include <NorvAnalytic/Event.h>

#include "reporting/TextFormat.h"

namespace NorvAnalytic {

std::vector<std::shared_ptr<Event>>& Event::savedEvents() {
    // Lives for the whole process and only the main queue touches it, so it needs no lock.
    static auto* events = new std::vector<std::shared_ptr<Event>>;
    return *events;
}

void Event::keepEventWithTypeId(Text typeId, float value, Text endpoint, Text parameters,
                                Text response, Text pageName, Text playerId, Text username,
                                Text warehouse, Text error, Text deviceCustomName,
                                Text deviceName, std::int64_t statusCode) {
    auto event = std::make_shared<Event>();
    event->eventTypeId = std::move(typeId);
    event->value = TextFormat::decimal(value);
    event->endpoint = std::move(endpoint);
    event->parameters = std::move(parameters);
    event->response = std::move(response);
    event->pageName = std::move(pageName);
    event->player_id = std::move(playerId);
    event->username = std::move(username);
    event->warehouse = std::move(warehouse);
    event->error = std::move(error);
    event->deviceCustomName = std::move(deviceCustomName);
    event->deviceName = std::move(deviceName);
    event->statusCode = statusCode;
    savedEvents().push_back(std::move(event));
}

}  // namespace NorvAnalytic
