#include "reporting/SentEvent.h"

#include <mutex>
#include <utility>

namespace NorvAnalytic {

namespace {

std::size_t lengthBytes(std::size_t length) {
    std::size_t bytes = 1;
    while (length >= 0x80) {
        length >>= 7;
        ++bytes;
    }
    return bytes;
}

void appendLength(std::string& texts, std::size_t length) {
    while (length >= 0x80) {
        texts += static_cast<char>(0x80 | (length & 0x7F));
        length >>= 7;
    }
    texts += static_cast<char>(length);
}

std::size_t readLength(std::string_view texts, std::size_t& at) {
    std::size_t length = 0;
    for (unsigned shift = 0;; shift += 7) {
        const auto byte = static_cast<unsigned char>(texts[at++]);
        length |= static_cast<std::size_t>(byte & 0x7F) << shift;
        if ((byte & 0x80) == 0) {
            return length;
        }
    }
}

}  // namespace

SentEvent::SentEvent(const EventFields& event, std::shared_ptr<const DeviceFacts> facts,
                     bool isSavedEvent, std::string& texts)
    : facts_(std::move(facts)),
      ticket_(EventsInFlight::begin()),
      value_(event.value),
      isSavedEvent_(isSavedEvent) {
    std::size_t size = 0;
    for (const EventFieldSlot& slot : kEventFieldSlots) {
        if (const Text& text = event.*slot.fields) {
            size += lengthBytes(text->size()) + text->size();
        }
    }
    texts.reserve(texts.size() + size);
    for (std::size_t slot = 0; slot < kEventFieldSlots.size(); ++slot) {
        if (const Text& text = event.*kEventFieldSlots[slot].fields) {
            present_ |= static_cast<std::uint16_t>(1U << slot);
            appendLength(texts, text->size());
            texts += *text;
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

template <class Visit>
void SentEvent::forEachText(Visit visit) const {
    std::size_t at = 0;
    for (std::size_t slot = 0; slot < kEventFieldSlots.size(); ++slot) {
        if ((present_ & (1U << slot)) != 0) {
            const std::size_t length = readLength(texts_, at);
            visit(slot, std::string_view(texts_).substr(at, length));
            at += length;
        }
    }
}

EventFields SentEvent::fields() const {
    EventFields event;
    event.value = value_;
    forEachText([&](std::size_t slot, std::string_view text) {
        event.*kEventFieldSlots[slot].fields = std::string(text);
    });
    return event;
}

Text SentEvent::typeId() const {
    if ((present_ & 1U) == 0) {
        return std::nullopt;
    }
    std::size_t at = 0;
    const std::size_t length = readLength(texts_, at);
    return texts_.substr(at, length);
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
