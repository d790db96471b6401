#include <NorvAnalytic/Connection.h>
#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <algorithm>

#include "delivery/DeliveryQueue.h"
#include "facade/CollectionConsent.h"
#include "mainqueue/MainQueueCheck.h"
#include "events/TextFormat.h"
#include "facade/EventSubmission.h"

namespace NorvAnalytic {

void NorvAnalytics::checkEvents() {
    assertOnMainQueue();
    if (!CollectionConsent::allowed() || !hasConnection()) {
        return;
    }
    DeliveryQueue::shared().resendTick();
    auto& events = Event::savedEvents();
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
    // The value goes back through its float, as the server always saw it.
    Event resent = *head;
    resent.value = TextFormat::decimal(TextFormat::leadingFloat(head->value));
    submitEvent(resent, true);
    // Sent once, whatever the answer: a resend that fails again is not kept.
    std::erase_if(events, [&](const std::shared_ptr<Event>& event) { return event == head; });
    DeliveryQueue::shared().savedEventResent(head.get());
}

bool NorvAnalytics::hasConnection() {
    const std::shared_ptr<Connection> connection = Connection::reachabilityForInternetConnection();
    const ConnectionStatus status =
        connection ? connection->currentReachabilityStatus() : ConnectionStatusNone;
    return status != ConnectionStatusNone;
}

}  // namespace NorvAnalytic
