#pragma once

#include <NorvAnalytic/Event.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "delivery/Outgoing.h"

namespace NorvAnalytic {

// What the SDK knows of a saved event beyond its public fields: its row in the queue file, its
// idempotency key and the privacy generation it was recorded in. Main queue only, like the saved
// list; an entry whose event left the list (resent, dropped past the bound, or removed by the
// host) lets its row go at the next tick.
class SavedEventTags {
public:
    struct Tag {
        JournalRow row;
        std::string eventId;
        std::uint64_t epoch = 0;
    };

    static SavedEventTags& shared();
    void tag(const std::shared_ptr<Event>& event, Tag tag);
    // The tag of a saved event, removed: it is being resent or dropped.
    std::optional<Tag> take(const Event* event);
    // Rows of events no longer in the list go.
    void releaseGone();
    // Removes from events those recorded before a privacy fence, with their rows; counts them.
    void dropFenced(std::vector<std::shared_ptr<Event>>& events);

private:
    struct Entry {
        Tag tag;
        std::weak_ptr<Event> event;
    };
    std::unordered_map<const Event*, Entry> tags_;
};

}  // namespace NorvAnalytic
