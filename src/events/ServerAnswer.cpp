#include "events/ServerAnswer.h"

#include "events/TextFormat.h"

namespace NorvAnalytic {

bool ServerAnswer::nestsDeeperThan(std::string_view body, std::size_t limit) {
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : body) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            if (++depth > limit) {
                return true;
            }
        } else if ((c == '}' || c == ']') && depth > 0) {
            --depth;
        }
    }
    return false;
}

std::optional<ServerAnswer::Json> ServerAnswer::parse(std::string_view body) {
    if (nestsDeeperThan(body, kMaxDepth)) {
        return std::nullopt;
    }
    Json document = Json::parse(body.begin(), body.end(), nullptr, false);
    if (!document.is_object()) {
        return std::nullopt;
    }
    return document;
}

const ServerAnswer::Json* ServerAnswer::member(const Json* object, std::string_view key) {
    if (object == nullptr || !object->is_object()) {
        return nullptr;
    }
    auto found = object->find(key);
    return found == object->end() ? nullptr : &*found;
}

std::string ServerAnswer::describe(const Json* value) {
    if (value == nullptr) {
        return "(null)";
    }
    switch (value->type()) {
        case Json::value_t::string:
            return value->get_ref<const std::string&>();
        case Json::value_t::null:
            return "<null>";
        case Json::value_t::boolean:
            return value->get<bool>() ? "1" : "0";
        default:
            return value->dump(-1, ' ', false, Json::error_handler_t::replace);
    }
}

bool ServerAnswer::truth(const Json* value) {
    if (value == nullptr) {
        return false;
    }
    if (value->is_boolean()) {
        return value->get<bool>();
    }
    if (value->is_number()) {
        return value->get<double>() != 0.0;
    }
    if (!value->is_string()) {
        return false;
    }
    const auto& text = value->get_ref<const std::string&>();
    std::size_t i = 0;
    while (i < text.size() && TextFormat::isBlank(text[i])) {
        ++i;
    }
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        ++i;
    }
    while (i < text.size() && text[i] == '0') {
        ++i;
    }
    if (i == text.size()) {
        return false;
    }
    const char first = text[i];
    return first == 'Y' || first == 'y' || first == 'T' || first == 't' ||
           (first >= '1' && first <= '9');
}

std::optional<VersionEntry> ServerAnswer::versionEntry(const Json* value) {
    if (value == nullptr || !value->is_object()) {
        return std::nullopt;
    }
    VersionEntry entry;
    if (const Json* no = member(value, "no"); no != nullptr && no->is_string()) {
        entry.no = no->get<std::string>();
    }
    if (const Json* url = member(value, "download_url"); url != nullptr) {
        entry.download_url = describe(url);
    }
    return entry;
}

}  // namespace NorvAnalytic
