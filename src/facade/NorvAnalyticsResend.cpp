#include <NorvAnalytic/Connection.h>
#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <algorithm>

#include "events/SavedEvents.h"
#include "events/TextFormat.h"
#include "facade/CollectionConsent.h"
#include "facade/EventDelivery.h"
#include "facade/EventSubmission.h"
#include "facade/SavedEventTags.h"
#include "mainqueue/MainQueueCheck.h"

namespace NorvAnalytic {

void NorvAnalytics::checkEvents() {
    assertOnMainQueue();
    auto& events = Event::savedEvents();
    SavedEventTags& tags = SavedEventTags::shared();
    // Events kept before consent was withdrawn or the device forgotten are never resent.
    tags.dropFenced(events);
    if (!CollectionConsent::allowed() || !hasConnection()) {
        return;
    }
    tags.releaseGone();
    const auto [maxEvents, maxBytes] = SavedEvents::limits();
    EventDelivery::outbox().journal().tick(maxEvents, maxBytes);
    if (events.empty()) {
        return;
    }
    Platform::log("There are " + std::to_string(events.size()) + " saved events to send!");
    const std::shared_ptr<Event> head = events.front();
    // An event without a type stays at the head and holds the queue: the server cannot file
    // it, and the events behind it must not overtake it.
    if (!head->eventTypeId) {
        return;
    }
    const std::optional<SavedEventTags::Tag> tag = tags.take(head.get());
    // The value goes back through its float, as the server always saw it.
    Event resent = *head;
    resent.value = TextFormat::decimal(TextFormat::leadingFloat(head->value));
    // The same key as its first send: a server that saw that one knows this one.
    submitEvent(resent, true, tag ? std::string_view(tag->eventId) : std::string_view());
    // Sent once, whatever the answer: a resend that fails again is not kept.
    std::erase_if(events, [&](const std::shared_ptr<Event>& event) { return event == head; });
    if (tag && tag->row) {
        EventDelivery::outbox().journal().settle(tag->row, Journal::Settlement::Delivered, false);
    }
}

bool NorvAnalytics::hasConnection() {
    const std::shared_ptr<Connection> connection = Connection::reachabilityForInternetConnection();
    const ConnectionStatus status =
        connection ? connection->currentReachabilityStatus() : ConnectionStatusNone;
    return status != ConnectionStatusNone;
}

}  // namespace NorvAnalytic
