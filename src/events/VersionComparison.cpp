#include "events/VersionComparison.h"

namespace NorvAnalytic {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The run of digits that starts at position, without its leading zeros; position moves past
// the run.
std::string_view significantDigits(std::string_view text, std::size_t& position) {
    const std::size_t start = position;
    while (position < text.size() && isDigit(text[position])) {
        ++position;
    }
    std::string_view run = text.substr(start, position - start);
    const std::size_t firstSignificant = run.find_first_not_of('0');
    return firstSignificant == std::string_view::npos ? std::string_view{}
                                                      : run.substr(firstSignificant);
}

}  // namespace

std::strong_ordering VersionComparison::compareNumerically(std::string_view a, std::string_view b) {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            const std::string_view left = significantDigits(a, i);
            const std::string_view right = significantDigits(b, j);
            // Without leading zeros the longer run is the larger number; equal lengths compare
            // digit by digit, so no run is ever converted to an integer that could overflow.
            if (auto order = left.size() <=> right.size(); order != 0) {
                return order;
            }
            if (auto order = left.compare(right) <=> 0; order != 0) {
                return order;
            }
            continue;
        }
        const auto left = static_cast<unsigned char>(a[i]);
        const auto right = static_cast<unsigned char>(b[j]);
        if (auto order = left <=> right; order != 0) {
            return order;
        }
        ++i;
        ++j;
    }
    return (a.size() - i) <=> (b.size() - j);
}

}  // namespace NorvAnalytic
