#include "events/TextFormat.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace NorvAnalytic {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

}  // namespace

std::size_t TextFormat::utf8SequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto continuation = [&](std::size_t i) {
        return i < text.size() && (byte(i) & 0xC0U) == 0x80U;
    };
    const unsigned char lead = byte(0);
    if (lead < 0x80U) {
        return 1;
    }
    if (lead >= 0xC2U && lead <= 0xDFU) {
        return continuation(1) ? 2 : 0;
    }
    if (lead >= 0xE0U && lead <= 0xEFU) {
        if (!continuation(1) || !continuation(2)) {
            return 0;
        }
        // No overlong forms, no surrogates.
        if ((lead == 0xE0U && byte(1) < 0xA0U) || (lead == 0xEDU && byte(1) > 0x9FU)) {
            return 0;
        }
        return 3;
    }
    if (lead >= 0xF0U && lead <= 0xF4U) {
        if (!continuation(1) || !continuation(2) || !continuation(3)) {
            return 0;
        }
        if ((lead == 0xF0U && byte(1) < 0x90U) || (lead == 0xF4U && byte(1) > 0x8FU)) {
            return 0;
        }
        return 4;
    }
    return 0;
}

namespace {

// Bytes before the first one that is not ASCII, read 32 and then eight at a time: most texts
// on the wire, whole bodies among them, are ASCII throughout.
std::size_t asciiLength(std::string_view text) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080U;
    std::size_t offset = 0;
    for (std::uint64_t words[4]; offset + sizeof words <= text.size(); offset += sizeof words) {
        std::memcpy(words, text.data() + offset, sizeof words);
        if (((words[0] | words[1] | words[2] | words[3]) & kHighBits) != 0) {
            break;
        }
    }
    for (std::uint64_t word = 0; offset + sizeof word <= text.size(); offset += sizeof word) {
        std::memcpy(&word, text.data() + offset, sizeof word);
        if ((word & kHighBits) != 0) {
            break;
        }
    }
    while (offset < text.size() && static_cast<unsigned char>(text[offset]) < 0x80U) {
        ++offset;
    }
    return offset;
}

// Bytes before the first invalid UTF-8 sequence.
std::size_t validLength(std::string_view text) {
    std::size_t offset = 0;
    while (true) {
        offset += asciiLength(text.substr(offset));
        if (offset == text.size()) {
            return offset;
        }
        const std::size_t length = TextFormat::utf8SequenceLength(text.substr(offset));
        if (length == 0) {
            return offset;
        }
        offset += length;
    }
}

}  // namespace

std::string TextFormat::describe(const Text& text) { return text ? *text : std::string(kNil); }

std::string TextFormat::version(const std::shared_ptr<const Bundle>& bundle) {
    if (!bundle) {
        return "(null).(null)";
    }
    return describe(bundle->objectForInfoDictionaryKey("CFBundleShortVersionString")) + "." +
           describe(bundle->objectForInfoDictionaryKey("CFBundleVersion"));
}

std::string TextFormat::decimal(double value) {
    // A decimal point whatever locale the host has set: the server parses these numbers.
    // Whole numbers, most events' values, skip the general conversion (a sixth of its cost on
    // the caller's thread) for the same text; -0 keeps its sign through the general one.
    if (value == std::trunc(value) && std::fabs(value) < 1e15 &&
        !(value == 0 && std::signbit(value))) {
        char whole[32];
        char* end = std::to_chars(whole, whole + 24, static_cast<std::int64_t>(value)).ptr;
        return std::string(whole, std::copy_n(".000000", 7, end));
    }
    char buffer[512];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value,
                                      std::chars_format::fixed, 6);
    return std::string(buffer, result.ptr);
}

std::string TextFormat::validUtf8(std::string_view text) {
    std::string valid;
    appendValidUtf8(valid, text);
    return valid;
}

bool TextFormat::isValidUtf8(std::string_view text) { return validLength(text) == text.size(); }

void TextFormat::appendValidUtf8(std::string& out, std::string_view text) {
    while (true) {
        const std::size_t valid = validLength(text);
        out.append(text.substr(0, valid));
        if (valid == text.size()) {
            return;
        }
        out += kReplacement;
        text.remove_prefix(valid + 1);
    }
}

std::string_view TextFormat::prefixUtf16(std::string_view text, std::size_t limit) {
    std::size_t units = 0;
    std::size_t offset = 0;
    while (offset < text.size()) {
        const auto lead = static_cast<unsigned char>(text[offset]);
        const std::size_t length = lead < 0x80U ? 1 : lead < 0xE0U ? 2 : lead < 0xF0U ? 3 : 4;
        const std::size_t width = length == 4 ? 2 : 1;
        if (units + width > limit) {
            break;
        }
        units += width;
        offset += length;
    }
    return text.substr(0, std::min(offset, text.size()));
}

bool TextFormat::isBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

float TextFormat::leadingFloat(const Text& text) {
    if (!text) {
        return 0.0F;
    }
    const char* begin = text->data();
    const char* end = begin + text->size();
    while (begin != end && isBlank(*begin)) {
        ++begin;
    }
    if (begin != end && *begin == '+') {
        ++begin;
        if (begin != end && *begin == '-') {
            return 0.0F;
        }
    }
    float value = 0.0F;
    const auto result = std::from_chars(begin, end, value, std::chars_format::general);
    if (result.ec == std::errc::result_out_of_range) {
        return 0.0F;
    }
    return result.ec == std::errc() ? value : 0.0F;
}

}  // namespace NorvAnalytic
