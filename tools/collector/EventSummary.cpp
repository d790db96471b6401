#include "EventSummary.h"

#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

namespace NorvAnalytic::Collector {

namespace {

// The keys whose values tell events of a type apart, most telling first.
struct TellingKeys {
    std::string_view typeId;
    std::array<std::string_view, 3> keys;
};

constexpr TellingKeys kByType[] = {
    {"1", {"endpoint", "value", "response"}},
    {"2", {"username", "device_name", ""}},
    {"5", {"username", "warehouse", ""}},
    {"6", {"username", "", ""}},
    {"7", {"pageName", "", ""}},
    {"15", {"error", "parameters", ""}},
    {"16", {"endpoint", "error", "parameters"}},
    {"17", {"value", "", ""}},
    {"18", {"value", "", ""}},
    {"21", {"value", "", ""}},
    {"22", {"player_id", "", ""}},
    {"23", {"deviceCustomName", "", ""}},
};

// An event without a type (sendUsername, sendError, …) is told by the first of these it has.
constexpr std::string_view kUntyped[] = {"error",       "username", "warehouse",
                                         "device_name", "pageName", "endpoint"};

void appendPart(std::string& summary, std::string_view part) {
    if (part.empty()) {
        return;
    }
    if (!summary.empty()) {
        summary += " · ";
    }
    summary += part;
}

}  // namespace

std::string EventSummary::of(const StoredEvent& event) {
    const std::optional<std::string> type = event.value("type");
    std::string summary;
    if (!type) {
        for (const std::string_view key : kUntyped) {
            if (const auto value = event.value(std::string(key)); value && !value->empty()) {
                summary = std::string(key) + ": " + *value;
                break;
            }
        }
    }
    if (type && *type == "2") {
        // App Close goes out as an App Open with the value 0.
        appendPart(summary, event.value("value").value_or("1").starts_with('0') ? "close" : "open");
    }
    for (const TellingKeys& entry : kByType) {
        if (type && entry.typeId == *type) {
            for (const std::string_view key : entry.keys) {
                if (!key.empty()) {
                    appendPart(summary, event.value(std::string(key)).value_or(""));
                }
            }
        }
    }
    appendPart(summary, ofAnswer(event.answer));
    return summary;
}

std::string EventSummary::ofAnswer(const std::string& answer) {
    const auto json = nlohmann::json::parse(answer, nullptr, false);
    if (!json.is_object() || !json.contains("payload") || !json["payload"].is_object()) {
        return "";
    }
    const nlohmann::json& payload = json["payload"];
    std::string summary;
    if (payload.contains("analytics_enabled") && payload["analytics_enabled"] == false) {
        summary = "collection off";
    }
    for (const auto& [key, word] :
         {std::pair{"force_version", "forced "}, std::pair{"offer_version", "offered "}}) {
        if (payload.contains(key) && payload[key].is_object() && payload[key].contains("no") &&
            payload[key]["no"].is_string()) {
            appendPart(summary, word + payload[key]["no"].get<std::string>());
            break;
        }
    }
    return summary;
}

}  // namespace NorvAnalytic::Collector
