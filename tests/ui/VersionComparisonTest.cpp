#include <gtest/gtest.h>

#include <compare>
#include <string>
#include <vector>

#include "reporting/VersionComparison.h"

namespace NorvAnalytic {
namespace {

struct Case {
    std::string left;
    std::string right;
    std::strong_ordering expected;
};

void expectOrders(const std::vector<Case>& cases) {
    for (const auto& [left, right, expected] : cases) {
        EXPECT_EQ(VersionComparison::compareNumerically(left, right), expected)
            << left << " against " << right;
        // The same pair read the other way round must give the opposite answer.
        EXPECT_EQ(VersionComparison::compareNumerically(right, left), 0 <=> expected)
            << right << " against " << left;
    }
}

TEST(VersionComparisonTest, OrdersAppVersionsAgainstServerVersions) {
    const auto less = std::strong_ordering::less;
    const auto equal = std::strong_ordering::equal;
    const auto greater = std::strong_ordering::greater;
    // The app's version is short version and build: 2.3 build 41 is 2.3.41.
    expectOrders({
        {"2.3.41", "2.3.42", less},
        {"2.3.41", "2.4", less},
        {"2.3.41", "2.3", greater},
        {"2.3.41", "2.3.41", equal},
        {"9.9.1", "10.0", less},
        {"1.9", "1.10", less},
        {"1.9.9", "1.10", less},
        // An app without a build number prints (null) there, which orders before any build.
        {"2.3.(null)", "2.3.1", less},
    });
}

TEST(VersionComparisonTest, LeadingZerosTieAndTheWalkGoesOn) {
    const auto less = std::strong_ordering::less;
    const auto equal = std::strong_ordering::equal;
    expectOrders({
        {"2.03", "2.3", equal},
        {"007", "7", equal},
        {"0", "000", equal},
        {"2.003.1", "2.3.2", less},
        {"2.0.9", "2.00.10", less},
        {"1.0", "1.00.0", less},
    });
}

TEST(VersionComparisonTest, DigitRunsOfAnyLengthCompareByValue) {
    const auto less = std::strong_ordering::less;
    const auto equal = std::strong_ordering::equal;
    expectOrders({
        {"1.123456789012345678901234567890", "1.123456789012345678901234567891", less},
        {"99999999999999999999999", "100000000000000000000000", less},
        {"18446744073709551615", "18446744073709551616", less},
        {"0000000000000000000000000000001.5", "1.5", equal},
        {"3.18446744073709551616", "3.18446744073709551616.0", less},
    });
}

TEST(VersionComparisonTest, OtherCharactersCompareByCodeAndShorterTextsComeFirst) {
    const auto less = std::strong_ordering::less;
    const auto equal = std::strong_ordering::equal;
    expectOrders({
        {"1.0a", "1.0b", less},
        {"1.0B", "1.0a", less},
        {"1.0", "1.0a", less},
        {"1.0-beta", "1.0.1", less},
        {"1.a", "1.1", std::strong_ordering::greater},
        {"", "0", less},
        {"", "", equal},
    });
}

}  // namespace
}  // namespace NorvAnalytic
