#include "ControlRequests.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "events/TextFormat.h"

namespace NorvAnalytic::Collector {

namespace {

using Json = nlohmann::json;

Json objectOf(std::string_view body, std::initializer_list<std::string_view> keys) {
    if (TextFormat::validUtf8(body) != body) {
        throw std::invalid_argument("the body is not UTF-8");
    }
    Json json;
    try {
        json = Json::parse(body);
    } catch (const Json::parse_error& error) {
        throw std::invalid_argument(std::string("the body is not JSON: ") + error.what());
    }
    if (!json.is_object()) {
        throw std::invalid_argument("the body is not a JSON object");
    }
    for (const auto& [key, value] : json.items()) {
        if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
            throw std::invalid_argument("unknown key \"" + key + "\"");
        }
    }
    return json;
}

bool boolean(const Json& json, const char* key) {
    if (!json.at(key).is_boolean()) {
        throw std::invalid_argument(std::string(key) + " is true or false");
    }
    return json.at(key).get<bool>();
}

std::optional<VersionOffer> version(const Json& json, const char* key) {
    const Json& entry = json.at(key);
    if (entry.is_null()) {
        return std::nullopt;
    }
    const std::string shape =
        std::string(key) + R"( is null or {"no": "2.0", "download_url": "…"})";
    if (!entry.is_object() || !entry.contains("no") || !entry.at("no").is_string() ||
        entry.at("no").get<std::string>().empty()) {
        throw std::invalid_argument(shape);
    }
    std::string downloadUrl;
    for (const auto& [field, value] : entry.items()) {
        if (field == "download_url" && value.is_string()) {
            downloadUrl = value.get<std::string>();
        } else if (field != "no") {
            throw std::invalid_argument(shape);
        }
    }
    return VersionOffer{entry.at("no").get<std::string>(), downloadUrl};
}

std::int64_t wholeNumber(const Json& json, const char* key, std::int64_t fallback) {
    if (!json.contains(key)) {
        return fallback;
    }
    const Json& value = json.at(key);
    if (!value.is_number_integer()) {
        throw std::invalid_argument(std::string(key) + " is a whole number");
    }
    if (value.is_number_unsigned() &&
        value.get<std::uint64_t>() > std::uint64_t{std::numeric_limits<std::int64_t>::max()}) {
        return std::numeric_limits<std::int64_t>::max();
    }
    return value.get<std::int64_t>();
}

void checkRanges(std::int64_t status, std::int64_t count) {
    if (status < 100 || status > 599) {
        throw std::invalid_argument("status is from 100 to 599, not " + std::to_string(status));
    }
    if (count < 0 || count > ControlRequests::kMaxRefusals) {
        throw std::invalid_argument("count is from 0 to 1000000, not " + std::to_string(count));
    }
}

}  // namespace

Steering ControlRequests::steered(Steering steering, std::string_view body) {
    const Json change =
        objectOf(body, {"analytics_enabled", "null_payload", "force_version", "offer_version"});
    if (change.contains("analytics_enabled")) {
        steering.analyticsEnabled = boolean(change, "analytics_enabled");
    }
    if (change.contains("null_payload")) {
        steering.nullPayload = boolean(change, "null_payload");
    }
    if (change.contains("force_version")) {
        steering.forceVersion = version(change, "force_version");
    }
    if (change.contains("offer_version")) {
        steering.offerVersion = version(change, "offer_version");
    }
    return steering;
}

Refusal ControlRequests::refusal(std::string_view body) {
    const Json change = objectOf(body, {"status", "count", "body"});
    const std::int64_t status = wholeNumber(change, "status", 500);
    const std::int64_t count = wholeNumber(change, "count", 1);
    checkRanges(status, count);
    Refusal refusal;
    refusal.status = static_cast<int>(status);
    refusal.remaining = static_cast<int>(count);
    if (change.contains("body") && !change.at("body").is_null()) {
        if (!change.at("body").is_string()) {
            throw std::invalid_argument("body is text or null");
        }
        refusal.body = change.at("body").get<std::string>();
    }
    return refusal;
}

void ControlRequests::check(const Refusal& refusal) {
    checkRanges(refusal.status, refusal.remaining);
}

}  // namespace NorvAnalytic::Collector
