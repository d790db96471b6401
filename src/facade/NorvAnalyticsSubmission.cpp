#include <NorvAnalytic/NorvAnalytics.h>

#include "delivery/EventIds.h"
#include "events/EventCatalogue.h"
#include "events/TextFormat.h"
#include "facade/CollectionConsent.h"
#include "facade/ControllerState.h"
#include "facade/EventDelivery.h"
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
    EventDelivery::outbox().setLimits(maxEvents, maxBytes);
}

void submitEvent(const Event& event, bool isSavedEvent, std::string_view eventId) noexcept {
    // Read before consent: a withdrawal between the two finds this event with the older
    // generation and discards it wherever it is.
    const std::uint64_t epoch = PrivacyEpoch::current();
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
        EventDelivery::outbox().submit(
            {EventTable::texts(event), std::move(destination), EventsInFlight::begin(),
             isSavedEvent, epoch,
             eventId.empty() && EventIds::enabled() ? EventRecord::keyOf(EventIds::next())
                                                    : EventRecord::keyOf(eventId)});
    } catch (...) {
        // Out of memory: this one event is dropped, and the host's call returns as usual.
    }
}

}  // namespace NorvAnalytic
