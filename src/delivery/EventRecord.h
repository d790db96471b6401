#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "delivery/Destination.h"
#include "delivery/EventsInFlight.h"
#include "delivery/PrivacyEpoch.h"
#include "events/EventTable.h"

namespace NorvAnalytic {

// One event from the host's call until its answer has been handled: what the host said, where
// it goes, and its place among the events a flush waits for.
struct EventRecord {
    EventTexts texts;
    std::shared_ptr<const Destination> destination = nullptr;
    EventsInFlight::Ticket ticket = EventsInFlight::begin();
    bool isSavedEvent = false;
    // The privacy generation it was recorded in: a later fence discards it wherever it is.
    std::uint64_t epoch = PrivacyEpoch::current();
    // Its idempotency key, the same on every resend; none while keys are off (most hosts, so a
    // waiting record pays one pointer for it).
    std::unique_ptr<const std::string> eventId = nullptr;

    std::string_view key() const { return eventId ? std::string_view(*eventId) : std::string_view(); }
    // What a waiting record counts against the byte bound: itself and its texts.
    std::size_t bytes() const {
        std::size_t bytes = sizeof(EventRecord) + texts.capacity() * sizeof(EventTexts::value_type);
        for (const auto& [member, text] : texts) {
            bytes += text.capacity() > 15 ? text.capacity() + 1 : 0;
        }
        return bytes + (eventId ? sizeof(std::string) + eventId->capacity() + 1 : 0);
    }
    // The key as a record holds it: none for the empty text.
    static std::unique_ptr<const std::string> keyOf(std::string_view key) {
        return key.empty() ? nullptr : std::make_unique<const std::string>(key);
    }
};

}  // namespace NorvAnalytic
