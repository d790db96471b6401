#include <NorvAnalytic/Event.h>

#include "platform/MainQueueCheck.h"
#include "reporting/EventFields.h"

namespace NorvAnalytic {

std::vector<std::shared_ptr<Event>>& Event::savedEvents() {
    assertOnMainQueue();
    // Lives for the whole process and only the main queue touches it, so it needs no lock.
    static auto* events = new std::vector<std::shared_ptr<Event>>;
    return *events;
}

void Event::keepEventWithTypeId(Text typeId, float value, Text endpoint, Text parameters,
                                Text response, Text pageName, Text playerId, Text username,
                                Text warehouse, Text error, Text deviceCustomName, Text deviceName,
                                std::int64_t statusCode) {
    keepEvent(
        {std::move(typeId), value, std::move(endpoint), std::move(parameters), std::move(response),
         std::move(pageName), std::move(playerId), std::move(username), std::move(warehouse),
         std::move(error), std::move(deviceCustomName), std::move(deviceName)},
        statusCode);
}

void keepEvent(const EventFields& fields, std::int64_t statusCode) {
    auto event = std::make_shared<Event>();
    fields.copyTo(*event);
    event->statusCode = statusCode;
    Event::savedEvents().push_back(std::move(event));
}

}  // namespace NorvAnalytic
