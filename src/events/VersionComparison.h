#pragma once

#include <compare>
#include <string_view>

namespace NorvAnalytic {

// Orders version texts the way people read them: 1.10 after 1.9, 2.3.42 after 2.3.41.
class VersionComparison {
public:
    // Walks both texts from the left. Runs of decimal digits compare by numeric value, of any
    // length, so 007 and 7 are equal there and the walk goes on; any other character compares
    // by its code, case-sensitively. A text that runs out first orders first.
    static std::strong_ordering compareNumerically(std::string_view a, std::string_view b);
};

}  // namespace NorvAnalytic
