#include "events/SavedEvents.h"

namespace NorvAnalytic {

void SavedEvents::setLimits(std::size_t, std::size_t) {}

std::vector<std::shared_ptr<Event>> SavedEvents::append(std::shared_ptr<Event> event) {
    Event::savedEvents().push_back(std::move(event));
    return {};
}

std::uint64_t SavedEvents::droppedCount() { return 0; }

}  // namespace NorvAnalytic
