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
    // Until it is handed to the client. A body built from the record and the device's facts is
    // given to the request and made again in the rare case its answer is read; one read back
    // from the queue file has no facts and stays here too.
    std::string body;
    std::shared_ptr<const DeviceFacts> facts = nullptr;
    JournalRow row = {};
    // A try of a row that had no answer before.
    bool retried = false;
    // Shared by the events a flush waits for as one (those recovered from ended processes).
    std::shared_ptr<const void> hold = nullptr;

    std::size_t bytes() const { return record.bytes() + body.capacity(); }
    // The body for the request, given away when it can be made again.
    std::string bodyForRequest();
    // For the answer's handling, once the body was handed over: the device UUID it carried, and
    // the body as it was sent (which leaves this event without one).
    std::string deviceUUID() const;
    std::string takeSentBody();

    // An event read back from the queue file, as it was first made: its texts (none, when a
    // later version wrote names this one does not know), its URL, its body and its key.
    static Outgoing fromRow(QueueFile::Row& row, JournalRow reference, EventsInFlight::Ticket ticket,
                            std::uint64_t epoch, std::shared_ptr<const void> hold, bool retried);
};

}  // namespace NorvAnalytic
