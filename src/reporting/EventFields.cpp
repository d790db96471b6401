#include "reporting/EventFields.h"

#include <array>

#include "reporting/TextFormat.h"

namespace NorvAnalytic {

namespace {

// Every text slot once: where the model, the answer context and the saved event keep it.
struct TextSlot {
    Text EventFields::*fields;
    Text EventResponseContext::*context;
    Text Event::*saved;
};

constexpr std::array<TextSlot, 11> kTextSlots = {{
    {&EventFields::typeId, &EventResponseContext::typeId, &Event::eventTypeId},
    {&EventFields::endpoint, &EventResponseContext::endpoint, &Event::endpoint},
    {&EventFields::parameters, &EventResponseContext::parameters, &Event::parameters},
    {&EventFields::response, &EventResponseContext::response, &Event::response},
    {&EventFields::pageName, &EventResponseContext::pageName, &Event::pageName},
    {&EventFields::playerId, &EventResponseContext::playerId, &Event::player_id},
    {&EventFields::username, &EventResponseContext::username, &Event::username},
    {&EventFields::warehouse, &EventResponseContext::warehouse, &Event::warehouse},
    {&EventFields::error, &EventResponseContext::error, &Event::error},
    {&EventFields::deviceCustomName, &EventResponseContext::deviceCustomName,
     &Event::deviceCustomName},
    {&EventFields::deviceName, &EventResponseContext::deviceName, &Event::deviceName},
}};

// A slot added to EventFields without its row here would be dropped from answers and resends.
static_assert(sizeof(EventFields) == sizeof(Text) * kTextSlots.size() + alignof(Text) &&
                  kEventFieldTexts.size() == kTextSlots.size(),
              "every text slot of EventFields needs its row in kTextSlots and kEventFieldTexts");

}  // namespace

EventFields EventFields::fromContext(const EventResponseContext& context) {
    EventFields fields;
    fields.value = context.value;
    for (const TextSlot& slot : kTextSlots) {
        fields.*slot.fields = context.*slot.context;
    }
    return fields;
}

EventFields EventFields::fromSavedEvent(const Event& event) {
    EventFields fields;
    // A saved value comes back through its six-decimal text, as the server always saw it.
    fields.value = TextFormat::leadingFloat(event.value);
    for (const TextSlot& slot : kTextSlots) {
        fields.*slot.fields = event.*slot.saved;
    }
    return fields;
}

void EventFields::copyTo(EventResponseContext& context) const {
    context.value = value;
    for (const TextSlot& slot : kTextSlots) {
        context.*slot.context = this->*slot.fields;
    }
}

void EventFields::copyTo(Event& event) const {
    event.value = TextFormat::decimal(value);
    for (const TextSlot& slot : kTextSlots) {
        event.*slot.saved = this->*slot.fields;
    }
}

}  // namespace NorvAnalytic
