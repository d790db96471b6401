#include "events/EventCatalogue.h"

namespace NorvAnalytic {

namespace {

struct EventType {
    std::string_view id;
    std::string_view name;
};

// In index order. "19" has an index but no name, and the server reads the names as they are
// spelled here.
constexpr std::array<EventType, 17> kEventTypes = {{
    {"1", "Response Time"},
    {"2", "App Open"},
    {"3", "App Close"},
    {"4", "Logout Timeout"},
    {"5", "User Login"},
    {"6", "User Logout"},
    {"7", "Page Open"},
    {"8", "Page Close"},
    {"15", "User can not login"},
    {"16", "Data not retreived"},
    {"17", "Bluetooth status"},
    {"18", "Location service status"},
    {"19", ""},
    {"20", "External Accessory Battery low"},
    {"21", "External Accessory Battery status"},
    {"22", "Onesignal player id "},
    {"23", "Device custom name"},
}};

}  // namespace

Text EventCatalogue::typeId(std::int32_t index) {
    const auto slot = static_cast<std::uint32_t>(index);
    if (slot >= kEventTypes.size()) {
        return std::nullopt;
    }
    return std::string(kEventTypes[slot].id);
}

std::string EventCatalogue::typeName(const Text& typeId) {
    if (!typeId) {
        return "";
    }
    for (const EventType& type : kEventTypes) {
        if (*typeId == type.id) {
            return std::string(type.name);
        }
    }
    return "";
}

bool EventCatalogue::isAppOpen(const Text& typeId) {
    return typeId && *typeId == kEventTypes[AppOpen].id;
}

std::string EventCatalogue::describe(const Text& typeId) {
    return typeName(typeId) + " event (type " + typeId.value_or("(null)") + ")";
}

}  // namespace NorvAnalytic
