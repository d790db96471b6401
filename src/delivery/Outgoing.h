#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "delivery/EventRecord.h"
#include "delivery/QueueFile.h"

namespace NorvAnalytic {

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

    // An event read back from the queue file, as it was first made: its texts (none, when a
    // later version wrote names this one does not know), its URL, its body and its key.
    static Outgoing fromRow(QueueFile::Row& row, JournalRow reference, EventsInFlight::Ticket ticket,
                            std::uint64_t epoch, std::shared_ptr<const void> hold, bool retried);
};

}  // namespace NorvAnalytic
