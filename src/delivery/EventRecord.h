#pragma once

#include <cstddef>
#include <memory>

#include "delivery/EventsInFlight.h"
#include "events/EventTable.h"
#include "facade/ControllerState.h"

namespace NorvAnalytic {

// One event from the host's call until its answer has been handled: what the host said, where
// it goes, and its place among the events a flush waits for.
struct EventRecord {
    EventTexts texts;
    std::shared_ptr<const Destination> destination = nullptr;
    EventsInFlight::Ticket ticket = EventsInFlight::begin();
    bool isSavedEvent = false;

    // What a waiting record counts against the byte bound: itself and its texts.
    std::size_t bytes() const {
        std::size_t bytes = sizeof(EventRecord) + texts.capacity() * sizeof(EventTexts::value_type);
        for (const auto& [member, text] : texts) {
            bytes += text.capacity() > 15 ? text.capacity() + 1 : 0;
        }
        return bytes;
    }
};

}  // namespace NorvAnalytic
