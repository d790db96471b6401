#pragma once

#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/Types.h>

#include <array>
#include <cstdint>

namespace NorvAnalytic {

// What the host said about one event: its type, its value and the eleven text slots. The
// convenience calls fill it, the submission sends it, and the answer and the resend carry it.
struct EventFields {
    Text typeId = std::nullopt;
    float value = 0.0F;
    Text endpoint = std::nullopt;
    Text parameters = std::nullopt;
    Text response = std::nullopt;
    Text pageName = std::nullopt;
    Text playerId = std::nullopt;
    Text username = std::nullopt;
    Text warehouse = std::nullopt;
    Text error = std::nullopt;
    Text deviceCustomName = std::nullopt;
    Text deviceName = std::nullopt;

    // The slots as the answer context and the saved event name them.
    static EventFields fromContext(const EventResponseContext& context);
    static EventFields fromSavedEvent(const Event& event);
    void copyTo(EventResponseContext& context) const;
    void copyTo(Event& event) const;
};

// Every text slot once, in order: where the model, the answer context and the saved event keep
// it. Whatever copies or stores the slots walks this table.
struct EventFieldSlot {
    Text EventFields::*fields;
    Text EventResponseContext::*context;
    Text Event::*saved;
};

inline constexpr std::array<EventFieldSlot, 11> kEventFieldSlots = {{
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

// Appends a refused event to Event::savedEvents(). Main queue only.
void keepEvent(const EventFields& event, std::int64_t statusCode);

}  // namespace NorvAnalytic
