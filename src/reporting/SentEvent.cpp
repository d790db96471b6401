#include "reporting/SentEvent.h"

#include <mutex>
#include <utility>

namespace NorvAnalytic {

SentEvent::SentEvent(const EventFields& event, std::shared_ptr<const DeviceFacts> facts,
                     bool isSavedEvent)
    : facts_(std::move(facts)), value_(event.value), isSavedEvent_(isSavedEvent) {
    for (std::size_t slot = 0; slot < texts_.size(); ++slot) {
        if (const Text& text = event.*kEventFieldSlots[slot].fields) {
            texts_[slot] = std::make_unique<const std::string>(*text);
        }
    }
}

std::shared_ptr<const DeviceFacts> SentEvent::share(DeviceFacts facts) {
    // Never destroyed: events may be sent while the process exits.
    static auto* mutex = new std::mutex;
    static auto* last = new std::shared_ptr<const DeviceFacts>;
    std::lock_guard lock(*mutex);
    if (*last == nullptr || !(**last == facts)) {
        *last = std::make_shared<const DeviceFacts>(std::move(facts));
    }
    return *last;
}

EventFields SentEvent::fields() const {
    EventFields event;
    event.value = value_;
    for (std::size_t slot = 0; slot < texts_.size(); ++slot) {
        if (texts_[slot]) {
            event.*kEventFieldSlots[slot].fields = *texts_[slot];
        }
    }
    return event;
}

EventResponseContext SentEvent::context() const {
    const EventFields event = fields();
    EventResponseContext context;
    event.copyTo(context);
    context.deviceUUID = facts_->deviceUUID;
    context.requestBody = RequestBody::build(event, *facts_);
    context.isSavedEvent = isSavedEvent_;
    return context;
}

}  // namespace NorvAnalytic
