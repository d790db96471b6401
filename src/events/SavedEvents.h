#pragma once

#include <NorvAnalytic/Event.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace NorvAnalytic {

// The bound on Event::savedEvents(), the events kept for resending after a refusal.
class SavedEvents {
public:
    static constexpr std::size_t kDefaultMaxEvents = 10'000;
    static constexpr std::size_t kDefaultMaxBytes = 16 << 20;

    // Any thread. A list already beyond new limits is cut at the next append.
    static void setLimits(std::size_t maxEvents, std::size_t maxBytes);
    struct Appended {
        // Whether the event is in the list: false when the limits dropped it at once.
        bool kept = false;
        // How many events the limits dropped, the new one included.
        std::size_t dropped = 0;
    };
    // Main queue: appends event to Event::savedEvents(), then drops the oldest beyond the
    // limits, counts them and says so once per burst.
    static Appended append(std::shared_ptr<Event> event);
    // Any thread: (events, bytes); the queue file bounds its unanswered rows by them too.
    static std::pair<std::size_t, std::size_t> limits();
    // Any thread.
    static std::uint64_t droppedCount();
    // What a saved event holds in memory: the record and the heap blocks of its texts.
    static std::size_t bytes(const Event& event);
};

}  // namespace NorvAnalytic
