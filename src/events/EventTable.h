#pragma once

#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/Types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace NorvAnalytic {

// The host's texts of one event, only the present ones, each with the Event member it fills.
// This is how an event waits for delivery: a few dozen bytes where an Event takes hundreds.
using EventTexts = std::vector<std::pair<Text Event::*, std::string>>;

// What the SDK adds to every event about the app and the device.
struct DeviceFacts {
    std::string deviceUUID;
    std::string sdkVersion;
    Text deviceModel;
    std::string systemVersion;
    // Only app-open events carry these two.
    std::optional<float> batteryLevel = std::nullopt;
    Text userId = std::nullopt;
};

// An event's fields in one place: one table of the form body's pairs, each pair that carries
// the host's text with its Event member and its slot in the answer context. A new field is a
// member of Event (and of EventResponseContext) and a row of that table. Event's own calls are
// defined beside it, since they name each member too.
class EventTable {
public:
    static EventTexts texts(const Event& event);
    // Every text member an Event has, those the body never takes from it included.
    static std::span<Text Event::* const> textMembers();
    static const std::string* find(const EventTexts& texts, Text Event::*member);
    // What handleEventResponse takes: the texts in their context slots, the body as sent.
    static EventResponseContext context(const EventTexts& texts, std::string deviceUUID,
                                        std::string requestBody, bool isSavedEvent);
    // The event an answer context describes, as the saved list keeps it.
    static std::shared_ptr<Event> savedEvent(const EventResponseContext& context,
                                             std::int64_t statusCode);
    // The texts as bytes that outlive the process, each named by its pair's wire key so a
    // later version of the table still reads them; decode answers nothing for bytes it cannot
    // read whole.
    static std::string encode(const EventTexts& texts);
    static std::optional<EventTexts> decode(std::string_view bytes);
    // The form body: "key=value" pairs in the server's order, absent ones left out, values as
    // valid UTF-8 and nothing escaped.
    static std::string body(const EventTexts& texts, const Text& key, const DeviceFacts& device);
    // Appends "key=value" ("&" first unless the body is empty), the value as valid UTF-8.
    static void append(std::string& body, std::string_view key, std::string_view value);
};

}  // namespace NorvAnalytic
