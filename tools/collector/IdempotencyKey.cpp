#include "IdempotencyKey.h"

#include <stdexcept>

namespace NorvAnalytic::Collector {

namespace {

// A token's characters: those of an HTTP token, ":" and "/".
constexpr std::string_view kTokenCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!#$%&'*+-.^_`|~:/";

std::string unquoted(std::string_view quoted) {
    std::string key;
    for (std::size_t index = 1; index < quoted.size(); ++index) {
        const char c = quoted[index];
        if (c == '"') {
            if (index + 1 != quoted.size()) {
                throw std::invalid_argument("Idempotency-Key has text after its closing quote");
            }
            return key;
        }
        if (c == '\\') {
            if (++index == quoted.size() || (quoted[index] != '"' && quoted[index] != '\\')) {
                throw std::invalid_argument(R"(Idempotency-Key escapes only \" and \\)");
            }
            key += quoted[index];
        } else if (c < 0x20 || c > 0x7e) {
            throw std::invalid_argument(
                "Idempotency-Key holds a character that is not visible ASCII");
        } else {
            key += c;
        }
    }
    throw std::invalid_argument("Idempotency-Key has no closing quote");
}

}  // namespace

std::string IdempotencyKey::parse(std::string_view field) {
    const std::size_t first = field.find_first_not_of(" \t");
    field = first == std::string_view::npos
                ? std::string_view()
                : field.substr(first, field.find_last_not_of(" \t") + 1 - first);
    std::string key;
    if (field.starts_with('"')) {
        key = unquoted(field);
    } else if (field.find_first_not_of(kTokenCharacters) != std::string_view::npos) {
        throw std::invalid_argument(
            "Idempotency-Key is a quoted string (\"5f0c-1a\") or a token (5f0c-1a)");
    } else {
        key = field;
    }
    if (key.empty() || key.size() > kMaxLength) {
        throw std::invalid_argument("Idempotency-Key is 1 to 255 characters long");
    }
    return key;
}

}  // namespace NorvAnalytic::Collector
