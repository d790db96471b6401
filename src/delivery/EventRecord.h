#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

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
    // Its idempotency key, the same on every resend; empty while keys are off.
    std::string eventId = {};

    // What a waiting record counts against the byte bound: itself and its texts.
    std::size_t bytes() const {
        std::size_t bytes = sizeof(EventRecord) + texts.capacity() * sizeof(EventTexts::value_type);
        for (const auto& [member, text] : texts) {
            bytes += text.capacity() > 15 ? text.capacity() + 1 : 0;
        }
        return bytes + (eventId.capacity() > 15 ? eventId.capacity() + 1 : 0);
    }
};

// A row of the queue file: the file's opening it was written in (a row of an earlier opening is
// no longer ours to change) and its id. Empty for an event that has no row.
struct JournalRow {
    std::uint64_t opening = 0;
    std::int64_t id = 0;
    explicit operator bool() const { return id != 0; }
};

// An event ready for the client: its body made, and its row when it has one.
struct Outgoing {
    EventRecord record;
    std::string body;
    std::string deviceUUID;
    JournalRow row = {};
    // A try of a row that had no answer before.
    bool retried = false;
    // Shared by the events a flush waits for as one (those recovered from ended processes).
    std::shared_ptr<const void> hold = nullptr;

    std::size_t bytes() const { return record.bytes() + body.capacity(); }
};

}  // namespace NorvAnalytic
