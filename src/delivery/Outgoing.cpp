#include "delivery/Outgoing.h"

#include <string_view>
#include <utility>

namespace NorvAnalytic {

namespace {

// The device UUID a body was made with, for the answer's log lines.
std::string deviceUUIDIn(std::string_view body) {
    constexpr std::string_view kKey = "device_uuid=";
    std::size_t start = body.starts_with(kKey) ? 0 : body.find("&" + std::string(kKey));
    if (start == std::string_view::npos) {
        return {};
    }
    start = body.find('=', start) + 1;
    return std::string(body.substr(start, body.find('&', start) - start));
}

}  // namespace

Outgoing Outgoing::fromRow(QueueFile::Row& row, JournalRow reference, EventsInFlight::Ticket ticket,
                           std::uint64_t epoch, std::shared_ptr<const void> hold, bool retried) {
    EventRecord record{EventTable::decode(row.texts).value_or(EventTexts{}),
                       std::make_shared<const Destination>(Destination{std::nullopt, row.url}),
                       std::move(ticket), row.isSavedEvent, epoch,
                       EventRecord::keyOf(row.eventId)};
    return {std::move(record), std::move(row.body), nullptr, reference, retried, std::move(hold)};
}

std::string Outgoing::bodyForRequest() { return facts ? std::exchange(body, {}) : body; }

std::string Outgoing::deviceUUID() const { return facts ? facts->deviceUUID : deviceUUIDIn(body); }

std::string Outgoing::takeSentBody() {
    return facts ? EventTable::body(record.texts, record.destination->key, *facts) : std::move(body);
}

}  // namespace NorvAnalytic
