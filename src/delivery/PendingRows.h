#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "delivery/EventsInFlight.h"

namespace NorvAnalytic {

// The queue file's pending rows of this process that are not with the client yet, oldest first,
// each with what memory keeps of its event: its size, its flush ticket, its privacy generation and
// what it shares with the events a flush waits for as one. Plain state: its owner locks it.
class PendingRows {
public:
    struct Row {
        std::int64_t id;
        std::size_t bytes;
        EventsInFlight::Ticket ticket;
        std::uint64_t epoch;
        std::shared_ptr<const void> hold;
    };

    bool empty() const { return rows_.empty(); }
    std::size_t size() const { return rows_.size(); }
    void push(Row row);
    // The row of this id as read back from the file, letting go of older ones the file no
    // longer holds (erased by another process's forget). Null when it is not one of ours.
    std::optional<Row> take(std::int64_t id);
    // The ids of the oldest rows beyond the bounds, let go.
    std::vector<std::int64_t> trim(std::size_t maxEvents, std::size_t maxBytes);
    void clear();

private:
    std::deque<Row> rows_;
    std::size_t bytes_ = 0;
};

}  // namespace NorvAnalytic
