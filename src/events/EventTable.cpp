#include "events/EventTable.h"

#include <algorithm>
#include <array>

#include <pthread.h>

#include "BuildConfig.h"
#include "events/SavedEvents.h"
#include "events/TextFormat.h"
#include "mainqueue/MainQueueCheck.h"

namespace NorvAnalytic {

namespace {

// The server keeps at most this many UTF-16 units of the host's parameters and response.
constexpr std::size_t kDescriptionLimit = 200;
constexpr std::string_view kProtocolVersion = "1.7.4";

struct BodyInput {
    const EventTexts& texts;
    const Text& key;
    const DeviceFacts& device;
};

struct Field;
// A body pair's value, or nothing to leave the pair out; `made` holds a value made for it.
using BodyValue = std::optional<std::string_view> (*)(const Field&, const BodyInput&,
                                                      std::string& made);

// One pair of the form body, in the server's order. A pair that carries the host's text names
// the Event member it comes from and the answer context's slot for it.
struct Field {
    // "&key=": what goes before the value, the first pair's without its "&".
    std::string_view separated;
    BodyValue value;
    Text Event::*event = nullptr;
    Text EventResponseContext::*context = nullptr;

    constexpr std::string_view key() const { return separated.substr(1, separated.size() - 2); }
};

std::optional<std::string_view> present(const Text& text) {
    return text ? std::optional<std::string_view>(*text) : std::nullopt;
}

std::optional<std::string_view> host(const Field& field, const BodyInput& input, std::string&) {
    const std::string* text = EventTable::find(input.texts, field.event);
    return text ? std::optional<std::string_view>(*text) : std::nullopt;
}

// The host's object as "%@" writes it, "(null)" included, cut to what the server keeps.
std::optional<std::string_view> described(const Field& field, const BodyInput& input,
                                          std::string& made) {
    const std::string* text = EventTable::find(input.texts, field.event);
    if (text == nullptr) {
        return TextFormat::kNil;
    }
    std::string_view shown = *text;
    if (!TextFormat::isValidUtf8(shown)) {
        made = TextFormat::validUtf8(shown);
        shown = made;
    }
    return TextFormat::prefixUtf16(shown, kDescriptionLimit);
}

std::optional<std::string_view> value(const Field& field, const BodyInput& input,
                                      std::string& made) {
    if (const std::string* text = EventTable::find(input.texts, field.event)) {
        return *text;
    }
    made = TextFormat::decimal(0.0);
    return made;
}

std::optional<std::string_view> key(const Field&, const BodyInput& input, std::string&) {
    return present(input.key);
}

template <std::string DeviceFacts::*member>
std::optional<std::string_view> device(const Field&, const BodyInput& input, std::string&) {
    return input.device.*member;
}

template <Text DeviceFacts::*member>
std::optional<std::string_view> deviceText(const Field&, const BodyInput& input, std::string&) {
    return present(input.device.*member);
}

// Only app-open events carry the battery, in percent, and with it the store user id.
std::optional<std::string_view> battery(const Field&, const BodyInput& input, std::string& made) {
    if (!input.device.batteryLevel) {
        return std::nullopt;
    }
    made = TextFormat::decimal(*input.device.batteryLevel * 100.0F);
    return made;
}

std::optional<std::string_view> userId(const Field&, const BodyInput& input, std::string&) {
    return input.device.batteryLevel ? present(input.device.userId) : std::nullopt;
}

template <const std::string_view& text>
std::optional<std::string_view> constant(const Field&, const BodyInput&, std::string&) {
    return text;
}

constexpr std::string_view kTestDevice = "1";
constexpr std::string_view kSimulator = BuildConfig::kSimulatorBuild ? "1" : "0";

using Context = EventResponseContext;

// The value is a text in an Event and a number in the answer context: it has no context slot.
constexpr std::array<Field, 22> kFields = {{
    {"&key=", &key},
    {"&value=", &value, &Event::value},
    {"&type=", &host, &Event::eventTypeId, &Context::typeId},
    {"&endpoint=", &host, &Event::endpoint, &Context::endpoint},
    {"&parameters=", &described, &Event::parameters, &Context::parameters},
    {"&response=", &described, &Event::response, &Context::response},
    {"&device_uuid=", &device<&DeviceFacts::deviceUUID>},
    {"&pageName=", &host, &Event::pageName, &Context::pageName},
    {"&player_id=", &host, &Event::player_id, &Context::playerId},
    {"&vbf_version=", &device<&DeviceFacts::sdkVersion>},
    {"&username=", &host, &Event::username, &Context::username},
    {"&warehouse=", &host, &Event::warehouse, &Context::warehouse},
    {"&error=", &host, &Event::error, &Context::error},
    {"&deviceCustomName=", &host, &Event::deviceCustomName, &Context::deviceCustomName},
    {"&device_name=", &host, &Event::deviceName, &Context::deviceName},
    {"&device_model=", &deviceText<&DeviceFacts::deviceModel>},
    {"&system_version=", &device<&DeviceFacts::systemVersion>},
    {"&batteryLevel=", &battery},
    {"&user_id=", &userId},
    {"&is_test_device=", &constant<kTestDevice>},
    {"&version=", &constant<kProtocolVersion>},
    {"&is_simulator=", &constant<kSimulator>},
}};

// A body's size beyond its texts, for its one allocation: every pair's "&key=", and room for
// the values made here (a value of 0, the battery, "(null)" twice).
constexpr std::size_t kKeysSize = [] {
    std::size_t size = 0;
    for (const Field& field : kFields) {
        size += field.separated.size();
    }
    return size;
}();
constexpr std::size_t kMadeSize = 64;

// What an Event declares but the body never takes from it: the SDK adds the key, the device
// UUID and the version afresh to every send.
constexpr std::array kRecordOnly{&Event::key, &Event::version, &Event::device_uuid};

constexpr auto kTextMembers = [] {
    constexpr std::size_t kFromTable =
        std::ranges::count_if(kFields, [](const Field& field) { return field.event != nullptr; });
    std::array<Text Event::*, kFromTable + kRecordOnly.size()> members{};
    std::size_t next = 0;
    for (const Field& field : kFields) {
        if (field.event != nullptr) {
            members[next++] = field.event;
        }
    }
    for (const auto member : kRecordOnly) {
        members[next++] = member;
    }
    return members;
}();
// A text added to Event needs its row in the table above, or it would go unsent and uncounted.
static_assert(sizeof(Event) == kTextMembers.size() * sizeof(Text) + sizeof(Event::statusCode));

}  // namespace

EventTexts EventTable::texts(const Event& event) {
    std::size_t count = 0;
    for (const Field& field : kFields) {
        count += field.event != nullptr && (event.*field.event).has_value() ? 1 : 0;
    }
    EventTexts texts;
    texts.reserve(count);
    for (const Field& field : kFields) {
        if (field.event != nullptr && event.*field.event) {
            texts.emplace_back(field.event, *(event.*field.event));
        }
    }
    return texts;
}

std::span<Text Event::* const> EventTable::textMembers() { return kTextMembers; }

const std::string* EventTable::find(const EventTexts& texts, Text Event::*member) {
    for (const auto& [slot, text] : texts) {
        if (slot == member) {
            return &text;
        }
    }
    return nullptr;
}

std::string EventTable::encode(const EventTexts& texts) {
    std::string bytes;
    for (const auto& [member, text] : texts) {
        const std::string_view key = std::ranges::find(kFields, member, &Field::event)->key();
        bytes += static_cast<char>(key.size());
        bytes += key;
        for (int shift = 0; shift < 32; shift += 8) {
            bytes += static_cast<char>((text.size() >> shift) & 0xFF);
        }
        bytes += text;
    }
    return bytes;
}

std::optional<EventTexts> EventTable::decode(std::string_view bytes) {
    EventTexts texts;
    while (!bytes.empty()) {
        const std::size_t keySize = static_cast<unsigned char>(bytes.front());
        if (bytes.size() < 1 + keySize + 4) {
            return std::nullopt;
        }
        const std::string_view key = bytes.substr(1, keySize);
        std::size_t size = 0;
        for (int index = 0; index < 4; ++index) {
            size |= std::size_t{static_cast<unsigned char>(bytes[1 + keySize + index])} << (8 * index);
        }
        bytes.remove_prefix(1 + keySize + 4);
        const auto field = std::ranges::find(kFields, key, &Field::key);
        if (size > bytes.size() || field == kFields.end() || field->event == nullptr) {
            return std::nullopt;
        }
        texts.emplace_back(field->event, std::string(bytes.substr(0, size)));
        bytes.remove_prefix(size);
    }
    return texts;
}

EventResponseContext EventTable::context(const EventTexts& texts, std::string deviceUUID,
                                         std::string requestBody, bool isSavedEvent) {
    EventResponseContext context;
    for (const auto& [member, text] : texts) {
        const auto field = std::ranges::find(kFields, member, &Field::event);
        if (field->context != nullptr) {
            context.*field->context = text;
        }
    }
    const std::string* value = find(texts, &Event::value);
    context.value = TextFormat::leadingFloat(value ? Text(*value) : std::nullopt);
    context.deviceUUID = std::move(deviceUUID);
    context.requestBody = std::move(requestBody);
    context.isSavedEvent = isSavedEvent;
    return context;
}

std::shared_ptr<Event> EventTable::savedEvent(const EventResponseContext& context,
                                              std::int64_t statusCode) {
    auto event = std::make_shared<Event>();
    for (const Field& field : kFields) {
        if (field.context != nullptr) {
            event.get()->*field.event = context.*field.context;
        }
    }
    event->value = TextFormat::decimal(context.value);
    event->statusCode = statusCode;
    return event;
}

std::string EventTable::body(const EventTexts& texts, const Text& key, const DeviceFacts& device) {
    // One pass, the values as they are, checked once whole: most bodies are a few hundred bytes
    // of valid UTF-8. The pairs' separators are ASCII, so the body is valid exactly when every
    // value is; only a body that is not is written again, each value repaired.
    const BodyInput input{texts, key, device};
    std::size_t hint = kKeysSize + kMadeSize + device.deviceUUID.size() + device.sdkVersion.size() +
                       device.systemVersion.size() +
                       (device.deviceModel ? device.deviceModel->size() : 0) +
                       (device.userId ? device.userId->size() : 0) + (key ? key->size() : 0);
    for (const auto& text : texts) {
        hint += text.second.size();
    }
    std::string body;
    body.reserve(hint);
    std::string made;
    for (const Field& field : kFields) {
        if (const std::optional<std::string_view> value = field.value(field, input, made)) {
            body.append(field.separated.substr(body.empty() ? 1 : 0)).append(*value);
        }
    }
    if (TextFormat::isValidUtf8(body)) {
        return body;
    }
    body.clear();
    for (const Field& field : kFields) {
        if (const std::optional<std::string_view> value = field.value(field, input, made)) {
            append(body, field.key(), *value);
        }
    }
    return body;
}

void EventTable::append(std::string& body, std::string_view key, std::string_view value) {
    // Nothing is escaped: the collector splits the pairs exactly as they are written here.
    if (!body.empty()) {
        body += '&';
    }
    body += key;
    body += '=';
    TextFormat::appendValidUtf8(body, value);
}

std::vector<std::shared_ptr<Event>>& Event::savedEvents() {
    assertOnMainQueue();
    // Lives for the whole process and only the main queue touches it, so it needs no lock.
    static std::vector<std::shared_ptr<Event>>* events = [] {
        // A child after fork() leaves the parent's saved events to the parent: sent once.
        pthread_atfork(nullptr, nullptr, [] {
            static_cast<void>(new std::vector<std::shared_ptr<Event>>(std::move(*events)));
            events->clear();
        });
        return new std::vector<std::shared_ptr<Event>>;
    }();
    return *events;
}

void Event::keepEventWithTypeId(Text typeId, float value, Text endpoint, Text parameters,
                                Text response, Text pageName, Text playerId, Text username,
                                Text warehouse, Text error, Text deviceCustomName, Text deviceName,
                                std::int64_t statusCode) {
    auto event = std::make_shared<Event>(Event{
        .value = TextFormat::decimal(value),
        .eventTypeId = std::move(typeId),
        .endpoint = std::move(endpoint),
        .parameters = std::move(parameters),
        .response = std::move(response),
        .pageName = std::move(pageName),
        .player_id = std::move(playerId),
        .username = std::move(username),
        .warehouse = std::move(warehouse),
        .error = std::move(error),
        .deviceCustomName = std::move(deviceCustomName),
        .deviceName = std::move(deviceName),
        .statusCode = statusCode,
    });
    SavedEvents::append(std::move(event));
}

}  // namespace NorvAnalytic
