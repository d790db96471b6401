#include <gtest/gtest.h>

#include "events/EventTable.h"
#include "events/TextFormat.h"

#include <limits>

namespace NorvAnalytic {
namespace {

const DeviceFacts kDevice{"U", "1.7.4", "iPhone 7", "17.1"};

std::string body(const Event& event, const DeviceFacts& device = kDevice, const Text& key = "k") {
    return EventTable::body(EventTable::texts(event), key, device);
}
const std::string kTail = "is_test_device=1&version=1.7.4&is_simulator=0";

TEST(EventTable, EveryPairInItsPlaceAndAbsentOnesLeftOut) {
    // Every slot filled, and an app-open event's battery and user id.
    EXPECT_EQ(body({.value = "16777216.000000",
                    .eventTypeId = "2",
                    .endpoint = "/e",
                    .parameters = "p",
                    .response = "r",
                    .pageName = "Home",
                    .player_id = "pl",
                    .username = "ann",
                    .warehouse = "w",
                    .error = "x",
                    .deviceCustomName = "Till 3",
                    .deviceName = "scanner"},
                   {"U", "1.7.4", "iPhone 7", "17.1", 0.75F, "u-7"}),
              "key=k&value=16777216.000000&type=2&endpoint=/e&parameters=p&response=r&"
              "device_uuid=U&pageName=Home&player_id=pl&vbf_version=1.7.4&username=ann&"
              "warehouse=w&error=x&deviceCustomName=Till 3&device_name=scanner&"
              "device_model=iPhone 7&system_version=17.1&batteryLevel=75.000000&user_id=u-7&" +
                  kTail);
    // No key, no model, an unknown battery, no user id: the body starts without "&".
    EXPECT_EQ(body({.value = "0.250000", .eventTypeId = "2"},
                   {"U", "1.7.4", std::nullopt, "17.1", -1.0F}, std::nullopt),
              "value=0.250000&type=2&parameters=(null)&response=(null)&device_uuid=U&"
              "vbf_version=1.7.4&system_version=17.1&batteryLevel=-100.000000&" + kTail);
    EXPECT_EQ(body({.value = "-1.500000"}),
              "key=k&value=-1.500000&parameters=(null)&response=(null)&device_uuid=U&"
              "vbf_version=1.7.4&device_model=iPhone 7&system_version=17.1&" + kTail);
}

TEST(EventTable, ValuesAreFixedWithSixPlacesWholeOrNot) {
    const std::pair<double, std::string> cases[] = {
        {1.0, "1.000000"},        {-3.0, "-3.000000"},       {0.0, "0.000000"},
        {-0.0, "-0.000000"},      {0.25, "0.250000"},        {16777216.0, "16777216.000000"},
        {-1e15, "-1000000000000000.000000"}, {1e20, "100000000000000000000.000000"},
        {1e-7, "0.000000"},       {std::numeric_limits<double>::infinity(), "inf"}};
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(TextFormat::decimal(value), text) << value;
    }
}

// ASCII is skipped a block of words at a time: a bad byte in any word of any block is found.
TEST(EventTable, ABadByteIsRepairedWhereverItFallsInALongAsciiRun) {
    for (std::size_t at = 0; at < 80; ++at) {
        std::string text(80, 'a');
        text[at] = '\xFF';
        EXPECT_FALSE(TextFormat::isValidUtf8(text)) << at;
        EXPECT_EQ(TextFormat::validUtf8(text),
                  text.substr(0, at) + "\xEF\xBF\xBD" + text.substr(at + 1))
            << at;
    }
}

TEST(EventTable, ParametersAndResponseAreCutToTwoHundredUtf16UnitsOfValidText) {
    const std::string p200(200, 'p'), a199(199, 'a'), a198(198, 'a');
    const std::string emoji = "\xF0\x9F\x98\x80";  // two UTF-16 units
    const std::vector<std::pair<std::string, std::string>> rows = {
        {p200, p200}, {p200 + "q", p200},
        // The emoji would take units 200 and 201: it is left out whole.
        {a199 + emoji + "zz", a199}, {a198 + emoji + "zz", a198 + emoji},
        {"ok\xC3(\xFF", "ok\xEF\xBF\xBD(\xEF\xBF\xBD"},
        // Long runs of ASCII around valid and invalid sequences, at and off eight-byte steps;
        // a surrogate's three bytes are each replaced.
        {"abcdefgh\xC3\xA9" "1234567\xFF" "abcdefghijklmnop\xF0\x9F\x98\x80\xED\xA0\x80" "tail",
         "abcdefgh\xC3\xA9" "1234567\xEF\xBF\xBD" "abcdefghijklmnop\xF0\x9F\x98\x80"
         "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD" "tail"},
        {"a=1&b=2 c\nd", "a=1&b=2 c\nd"},  // nothing is escaped
    };
    for (const auto& [sent, kept] : rows) {
        const std::string sentBody = body({.parameters = sent, .response = sent});
        EXPECT_NE(sentBody.find("&parameters=" + kept + "&response=" + kept + "&"),
                  std::string::npos)
            << sentBody;
    }
    // Other fields go out whole, repaired but never cut.
    const std::string huge(3 * 1024 * 1024, 'e');
    EXPECT_NE(body({.endpoint = huge, .warehouse = "\xFF", .error = huge + "\xC3" + huge})
                  .find("&endpoint=" + huge + "&parameters=(null)&response=(null)&device_uuid=U&"
                        "vbf_version=1.7.4&warehouse=\xEF\xBF\xBD&error=" + huge +
                        "\xEF\xBF\xBD" + huge + "&"),
              std::string::npos);
}

}  // namespace
}  // namespace NorvAnalytic
