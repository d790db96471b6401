#include <gtest/gtest.h>

#include <compare>
#include <string>
#include <tuple>
#include <vector>

#include "events/VersionComparison.h"

namespace NorvAnalytic {
namespace {

TEST(VersionComparison, DigitRunsByValueOtherCharactersByCode) {
    const auto less = std::strong_ordering::less;
    const auto equal = std::strong_ordering::equal;
    const auto greater = std::strong_ordering::greater;
    const std::vector<std::tuple<std::string, std::string, std::strong_ordering>> rows = {
        {"2.3.41", "2.3.42", less}, {"2.3.41", "2.3", greater}, {"2.3.41", "2.3.41", equal},
        {"9.9.1", "10.0", less}, {"1.9.9", "1.10", less},
        // An app without a build number prints (null) there, which orders before any build.
        {"2.3.(null)", "2.3.1", less},
        // Leading zeros tie, and the walk goes on.
        {"2.03", "2.3", equal}, {"0", "000", equal}, {"2.003.1", "2.3.2", less},
        {"1.0", "1.00.0", less}, {"0000000000000000000000000000001.5", "1.5", equal},
        {"18446744073709551615", "18446744073709551616", less},
        {"1.0B", "1.0a", less}, {"1.0", "1.0a", less}, {"1.0-beta", "1.0.1", less},
        {"1.a", "1.1", greater}, {"", "0", less}, {"", "", equal},
    };
    for (const auto& [left, right, expected] : rows) {
        EXPECT_EQ(VersionComparison::compareNumerically(left, right), expected)
            << left << " against " << right;
        // The same pair read the other way round must give the opposite answer.
        EXPECT_EQ(VersionComparison::compareNumerically(right, left), 0 <=> expected)
            << right << " against " << left;
    }
}

}  // namespace
}  // namespace NorvAnalytic
