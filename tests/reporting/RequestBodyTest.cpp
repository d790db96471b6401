#include <gtest/gtest.h>

#include "reporting/RequestBody.h"

namespace NorvAnalytic {
namespace {

const DeviceFacts kDevice{.key = "k",
                          .deviceUUID = "U",
                          .sdkVersion = "1.7.4",
                          .deviceModel = "iPhone 7",
                          .systemVersion = "17.1"};
const std::string kTail = "is_test_device=1&version=1.7.4&is_simulator=0";

TEST(RequestBody, EveryPairInItsPlaceAndAbsentOnesLeftOut) {
    const EventFields all{.typeId = "2",
                          .value = 16777217.0F,
                          .endpoint = "/e",
                          .parameters = "p",
                          .response = "r",
                          .pageName = "Home",
                          .playerId = "pl",
                          .username = "ann",
                          .warehouse = "w",
                          .error = "x",
                          .deviceCustomName = "Till 3",
                          .deviceName = "scanner"};
    DeviceFacts appOpen = kDevice;
    appOpen.batteryLevel = 0.75F;
    appOpen.userId = "u-7";
    DeviceFacts bare = kDevice;
    bare.key = std::nullopt;
    bare.deviceModel = std::nullopt;
    bare.batteryLevel = -1.0F;
    struct Row {
        EventFields event;
        DeviceFacts device;
        std::string body;
    };
    const std::vector<Row> rows = {
        {all, appOpen,
         "key=k&value=16777216.000000&type=2&endpoint=/e&parameters=p&response=r&device_uuid=U&"
         "pageName=Home&player_id=pl&vbf_version=1.7.4&username=ann&warehouse=w&error=x&"
         "deviceCustomName=Till 3&device_name=scanner&device_model=iPhone 7&"
         "system_version=17.1&batteryLevel=75.000000&user_id=u-7&" +
             kTail},
        // No key, no model, an unknown battery, no user id: the body starts without "&".
        {{.typeId = "2", .value = 0.25F},
         bare,
         "value=0.250000&type=2&parameters=(null)&response=(null)&device_uuid=U&"
         "vbf_version=1.7.4&system_version=17.1&batteryLevel=-100.000000&" +
             kTail},
        {{.value = -1.5F},
         kDevice,
         "key=k&value=-1.500000&parameters=(null)&response=(null)&device_uuid=U&"
         "vbf_version=1.7.4&device_model=iPhone 7&system_version=17.1&" +
             kTail},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(RequestBody::build(row.event, row.device), row.body);
    }
}

TEST(RequestBody, ParametersAndResponseAreCutToTwoHundredUtf16UnitsOfValidText) {
    const std::string exactly200(200, 'p');
    const std::string emoji = "\xF0\x9F\x98\x80";  // two UTF-16 units
    const std::vector<std::pair<std::string, std::string>> rows = {
        {exactly200, exactly200},
        {exactly200 + "q", exactly200},
        // The emoji would take units 200 and 201: it is left out whole.
        {std::string(199, 'a') + emoji + "zz", std::string(199, 'a')},
        {std::string(198, 'a') + emoji + "zz", std::string(198, 'a') + emoji},
        {"ok\xC3(\xFF", "ok\xEF\xBF\xBD(\xEF\xBF\xBD"},
        // Nothing is escaped.
        {"a=1&b=2 c\nd", "a=1&b=2 c\nd"},
    };
    for (const auto& [sent, kept] : rows) {
        const std::string body =
            RequestBody::build({.parameters = sent, .response = sent, .pageName = sent}, kDevice);
        EXPECT_NE(body.find("&parameters=" + kept + "&response=" + kept + "&"), std::string::npos)
            << body;
    }
    // Other fields go out whole, repaired but never cut.
    const std::string huge(3 * 1024 * 1024, 'e');
    EXPECT_NE(RequestBody::build({.endpoint = huge, .warehouse = "\xFF"}, kDevice)
                  .find("&endpoint=" + huge +
                        "&parameters=(null)&response=(null)&device_uuid=U&"
                        "vbf_version=1.7.4&warehouse=\xEF\xBF\xBD&"),
              std::string::npos);
}

}  // namespace
}  // namespace NorvAnalytic
