#include <NorvAnalytic/NorvAnalytics.h>

#include "delivery/DeliveryQueue.h"
#include "events/EventCatalogue.h"
#include "events/TextFormat.h"
#include "facade/CollectionConsent.h"
#include "facade/ControllerState.h"
#include "facade/EventSubmission.h"
#include "platform/Diagnostics.h"

namespace NorvAnalytic {

std::string& NorvAnalytics::addObject(const Text& object, const std::string& key,
                                      std::string& body) {
    if (object) {
        EventTable::append(body, key, *object);
    }
    return body;
}

void NorvAnalytics::setWaitingEventLimits(std::size_t maxEvents, std::size_t maxBytes) {
    DeliveryQueue::shared().setLimits(maxEvents, maxBytes);
}

void submitEvent(const Event& event, bool isSavedEvent) noexcept {
    if (!CollectionConsent::allowed()) {
        CollectionConsent::countDiscarded(1);
        return;
    }
    try {
        std::shared_ptr<const Destination> destination = ControllerState::locked(
            [](const ControllerState& state) {
                return state.isEnabled ? state.destination : nullptr;
            });
        if (!destination) {
            if (Diagnostics::isOn()) {
                Diagnostics::report(DiagnosticLevel::Info,
                                    EventCatalogue::describe(event.eventTypeId) +
                                        " dropped: collection is off (before initWithKey, or "
                                        "switched off by the server) or there is no URL");
            }
            return;
        }
        DeliveryQueue::shared().submit(
            {EventTable::texts(event), std::move(destination), EventsInFlight::begin(),
             isSavedEvent});
    } catch (...) {
        // Out of memory: this one event is dropped, and the host's call returns as usual.
    }
}

}  // namespace NorvAnalytic
