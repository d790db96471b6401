#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace NorvAnalytic::Collector {

// The value of an Idempotency-Key request header: a Structured Field string ("\"5f0c-1a\"",
// with \" and \\ as its only escapes) or, as some clients send it, a bare token (5f0c-1a).
class IdempotencyKey {
public:
    static constexpr std::size_t kMaxLength = 255;

    // The key the field names, unquoted; throws std::invalid_argument with the reason when the
    // field is neither form, is empty or is longer than kMaxLength.
    static std::string parse(std::string_view field);
};

}  // namespace NorvAnalytic::Collector
