#pragma once

#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/Types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace NorvAnalytic {

// How values become text on the wire and in the log.
class TextFormat {
public:
    // What "%@" writes for nil.
    static constexpr std::string_view kNil = "(null)";
    // "%@": the text itself, or "(null)".
    static std::string describe(const Text& text);
    // "%@.%@" of a bundle's short version and build number: "(null)" for what is missing.
    static std::string version(const std::shared_ptr<const Bundle>& bundle);
    // "%f": six decimals.
    static std::string decimal(double value);
    // The length of the valid UTF-8 sequence that begins a text not empty, 0 when none does.
    static std::size_t utf8SequenceLength(std::string_view text);
    static bool isValidUtf8(std::string_view text);
    // The text with every invalid UTF-8 sequence replaced by U+FFFD.
    static std::string validUtf8(std::string_view text);
    // Appends validUtf8(text) to out without making the copy.
    static void appendValidUtf8(std::string& out, std::string_view text);
    // The first `limit` UTF-16 units of valid UTF-8 text; a surrogate pair is never split.
    static std::string_view prefixUtf16(std::string_view text, std::size_t limit);
    // A blank of the "C" locale (space, \t \n \v \f \r), whatever locale the host has set.
    static bool isBlank(char c);
    // The leading number of a text, as a float: blanks skipped, 0 when there is none.
    static float leadingFloat(const Text& text);
};

}  // namespace NorvAnalytic
