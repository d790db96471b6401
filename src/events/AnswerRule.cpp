#include "events/AnswerRule.h"

#include "events/EventCatalogue.h"

namespace NorvAnalytic {

bool AnswerRule::keeps(long statusCode, bool isSavedEvent) {
    return statusCode != 200 && !isSavedEvent;
}

bool AnswerRule::reads(const Text& typeId, std::int64_t logLevel, bool isEnabled) {
    return EventCatalogue::isAppOpen(typeId) || (logLevel >= 1 && logLevel <= 3 && isEnabled);
}

}  // namespace NorvAnalytic
