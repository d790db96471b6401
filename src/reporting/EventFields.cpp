#include "reporting/EventFields.h"

#include "reporting/TextFormat.h"

namespace NorvAnalytic {

// A slot added to EventFields without its row in kEventFieldSlots would be dropped from
// answers and resends.
static_assert(sizeof(EventFields) == sizeof(Text) * kEventFieldSlots.size() + alignof(Text),
              "every text slot of EventFields needs its row in kEventFieldSlots");

EventFields EventFields::fromContext(const EventResponseContext& context) {
    EventFields fields;
    fields.value = context.value;
    for (const EventFieldSlot& slot : kEventFieldSlots) {
        fields.*slot.fields = context.*slot.context;
    }
    return fields;
}

EventFields EventFields::fromSavedEvent(const Event& event) {
    EventFields fields;
    // A saved value comes back through its six-decimal text, as the server always saw it.
    fields.value = TextFormat::leadingFloat(event.value);
    for (const EventFieldSlot& slot : kEventFieldSlots) {
        fields.*slot.fields = event.*slot.saved;
    }
    return fields;
}

void EventFields::copyTo(EventResponseContext& context) const {
    context.value = value;
    for (const EventFieldSlot& slot : kEventFieldSlots) {
        context.*slot.context = this->*slot.fields;
    }
}

void EventFields::copyTo(Event& event) const {
    event.value = TextFormat::decimal(value);
    for (const EventFieldSlot& slot : kEventFieldSlots) {
        event.*slot.saved = this->*slot.fields;
    }
}

}  // namespace NorvAnalytic
