#pragma once

#include <string>

#include "CollectorStore.h"

namespace NorvAnalytic::Collector {

// What tells one event from the others of its type at a glance: the page name of a Page Open,
// the error of a failed login, the version an App Open was answered with. The list, the page
// and the exports all read it from here.
class EventSummary {
public:
    // The telling values, as sent, joined by " · "; "" when the event has none.
    static std::string of(const StoredEvent& event);
    // What an answer body steered: "offered 9.9.9", "forced 2.0", "collection off", or "".
    static std::string ofAnswer(const std::string& answer);
};

}  // namespace NorvAnalytic::Collector
