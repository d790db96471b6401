#include "delivery/PendingRows.h"

namespace NorvAnalytic {

void PendingRows::push(Row row) {
    bytes_ += row.bytes;
    rows_.push_back(std::move(row));
}

std::optional<PendingRows::Row> PendingRows::take(std::int64_t id) {
    while (!rows_.empty() && rows_.front().id < id) {
        bytes_ -= rows_.front().bytes;
        rows_.pop_front();
    }
    if (rows_.empty() || rows_.front().id != id) {
        return std::nullopt;
    }
    Row row = std::move(rows_.front());
    bytes_ -= row.bytes;
    rows_.pop_front();
    return row;
}

std::vector<std::int64_t> PendingRows::trim(std::size_t maxEvents, std::size_t maxBytes) {
    std::vector<std::int64_t> oldest;
    while (rows_.size() > maxEvents || bytes_ > maxBytes) {
        oldest.push_back(rows_.front().id);
        bytes_ -= rows_.front().bytes;
        rows_.pop_front();
    }
    return oldest;
}

void PendingRows::clear() {
    rows_.clear();
    bytes_ = 0;
}

}  // namespace NorvAnalytic
