#include "events/EventTable.h"

#include <array>

#include <pthread.h>

#include "BuildConfig.h"
#include "events/TextFormat.h"
#include "mainqueue/MainQueueCheck.h"

namespace NorvAnalytic {

namespace {

// The server keeps at most this many UTF-16 units of the host's parameters and response.
constexpr std::size_t kDescriptionLimit = 200;
constexpr std::string_view kProtocolVersion = "1.7.4";

// Every text member an event call fills, and where the answer context keeps it. The value is
// apart: the context holds it as a number.
struct TextRow {
    Text Event::*event;
    Text EventResponseContext::*context;
};

constexpr std::array<TextRow, 11> kTextRows = {{
    {&Event::eventTypeId, &EventResponseContext::typeId},
    {&Event::endpoint, &EventResponseContext::endpoint},
    {&Event::parameters, &EventResponseContext::parameters},
    {&Event::response, &EventResponseContext::response},
    {&Event::pageName, &EventResponseContext::pageName},
    {&Event::player_id, &EventResponseContext::playerId},
    {&Event::username, &EventResponseContext::username},
    {&Event::warehouse, &EventResponseContext::warehouse},
    {&Event::error, &EventResponseContext::error},
    {&Event::deviceCustomName, &EventResponseContext::deviceCustomName},
    {&Event::deviceName, &EventResponseContext::deviceName},
}};

struct BodyInput {
    const EventTexts& texts;
    const Text& key;
    const DeviceFacts& device;
};

// A body pair's value, or nothing to leave the pair out; `made` holds a value made for it.
using BodyValue = std::optional<std::string_view> (*)(const BodyInput&, std::string& made);

struct BodyRow {
    std::string_view key;
    BodyValue value;
};

std::optional<std::string_view> present(const Text& text) {
    return text ? std::optional<std::string_view>(*text) : std::nullopt;
}

template <Text Event::*member>
std::optional<std::string_view> host(const BodyInput& input, std::string&) {
    const std::string* text = EventTable::find(input.texts, member);
    return text ? std::optional<std::string_view>(*text) : std::nullopt;
}

// The host's object as "%@" writes it, "(null)" included, cut to what the server keeps.
template <Text Event::*member>
std::optional<std::string_view> described(const BodyInput& input, std::string& made) {
    const std::string* text = EventTable::find(input.texts, member);
    made = TextFormat::prefixUtf16(
        TextFormat::validUtf8(TextFormat::describe(text ? Text(*text) : std::nullopt)),
        kDescriptionLimit);
    return made;
}

std::optional<std::string_view> value(const BodyInput& input, std::string& made) {
    if (const std::string* text = EventTable::find(input.texts, &Event::value)) {
        return *text;
    }
    made = TextFormat::decimal(0.0);
    return made;
}

std::optional<std::string_view> key(const BodyInput& input, std::string&) {
    return present(input.key);
}

template <std::string DeviceFacts::*member>
std::optional<std::string_view> device(const BodyInput& input, std::string&) {
    return input.device.*member;
}

template <Text DeviceFacts::*member>
std::optional<std::string_view> deviceText(const BodyInput& input, std::string&) {
    return present(input.device.*member);
}

// Only app-open events carry the battery, in percent, and with it the store user id.
std::optional<std::string_view> battery(const BodyInput& input, std::string& made) {
    if (!input.device.batteryLevel) {
        return std::nullopt;
    }
    made = TextFormat::decimal(*input.device.batteryLevel * 100.0F);
    return made;
}

std::optional<std::string_view> userId(const BodyInput& input, std::string&) {
    return input.device.batteryLevel ? present(input.device.userId) : std::nullopt;
}

template <const std::string_view& text>
std::optional<std::string_view> constant(const BodyInput&, std::string&) {
    return text;
}

constexpr std::string_view kTestDevice = "1";
constexpr std::string_view kSimulator = BuildConfig::kSimulatorBuild ? "1" : "0";

constexpr std::array<BodyRow, 22> kBodyRows = {{
    {"key", &key},
    {"value", &value},
    {"type", &host<&Event::eventTypeId>},
    {"endpoint", &host<&Event::endpoint>},
    {"parameters", &described<&Event::parameters>},
    {"response", &described<&Event::response>},
    {"device_uuid", &device<&DeviceFacts::deviceUUID>},
    {"pageName", &host<&Event::pageName>},
    {"player_id", &host<&Event::player_id>},
    {"vbf_version", &device<&DeviceFacts::sdkVersion>},
    {"username", &host<&Event::username>},
    {"warehouse", &host<&Event::warehouse>},
    {"error", &host<&Event::error>},
    {"deviceCustomName", &host<&Event::deviceCustomName>},
    {"device_name", &host<&Event::deviceName>},
    {"device_model", &deviceText<&DeviceFacts::deviceModel>},
    {"system_version", &device<&DeviceFacts::systemVersion>},
    {"batteryLevel", &battery},
    {"user_id", &userId},
    {"is_test_device", &constant<kTestDevice>},
    {"version", &constant<kProtocolVersion>},
    {"is_simulator", &constant<kSimulator>},
}};

}  // namespace

EventTexts EventTable::texts(const Event& event) {
    EventTexts texts;
    const auto add = [&](Text Event::*member) {
        if (const Text& text = event.*member) {
            texts.emplace_back(member, *text);
        }
    };
    std::size_t count = event.value ? 1 : 0;
    for (const TextRow& row : kTextRows) {
        count += (event.*row.event).has_value() ? 1 : 0;
    }
    texts.reserve(count);
    add(&Event::value);
    for (const TextRow& row : kTextRows) {
        add(row.event);
    }
    return texts;
}

Event EventTable::event(const EventTexts& texts) {
    Event event;
    for (const auto& [member, text] : texts) {
        event.*member = text;
    }
    return event;
}

const std::string* EventTable::find(const EventTexts& texts, Text Event::*member) {
    for (const auto& [slot, text] : texts) {
        if (slot == member) {
            return &text;
        }
    }
    return nullptr;
}

EventResponseContext EventTable::context(const EventTexts& texts, std::string deviceUUID,
                                         std::string requestBody, bool isSavedEvent) {
    EventResponseContext context;
    for (const TextRow& row : kTextRows) {
        if (const std::string* text = find(texts, row.event)) {
            context.*row.context = *text;
        }
    }
    const std::string* value = find(texts, &Event::value);
    context.value = TextFormat::leadingFloat(value ? Text(*value) : std::nullopt);
    context.deviceUUID = std::move(deviceUUID);
    context.requestBody = std::move(requestBody);
    context.isSavedEvent = isSavedEvent;
    return context;
}

void EventTable::keep(const EventResponseContext& context, std::int64_t statusCode) {
    auto event = std::make_shared<Event>();
    for (const TextRow& row : kTextRows) {
        event.get()->*row.event = context.*row.context;
    }
    event->value = TextFormat::decimal(context.value);
    event->statusCode = statusCode;
    Event::savedEvents().push_back(std::move(event));
}

std::string EventTable::body(const EventTexts& texts, const Text& key, const DeviceFacts& device) {
    std::string body;
    body.reserve(256);
    std::string made;
    const BodyInput input{texts, key, device};
    for (const BodyRow& row : kBodyRows) {
        if (const std::optional<std::string_view> value = row.value(input, made)) {
            append(body, row.key, *value);
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
    Event::savedEvents().push_back(std::move(event));
}

}  // namespace NorvAnalytic
