#include <gtest/gtest.h>

#include <regex>

#include "events/DeviceIdentity.h"

namespace NorvAnalytic {
namespace {

TEST(DeviceIdentity, ModelNamesComeFromTheTableOnly) {
    const std::vector<std::pair<std::string, Text>> rows = {
        {"x86_64", "Simulator"},         {"i386", "Simulator"},
        {"iPhone9,3", "iPhone 7"},       {"iPhone8,1", "iPhone 6S"},
        {"iPhone6,2", "iPhone 5s"},      {"iPad3,4", "iPad"},
        {"iPad4,7", "iPad Mini"},        {"iPad6,7", "iPad Pro (12.9\")"},
        {"iPad6,4", "iPad Pro (9.7\")"}, {"iPhone10,1", std::nullopt},
        {"iPhone", std::nullopt},        {"aarch64", std::nullopt},
    };
    for (const auto& [machine, model] : rows) {
        EXPECT_EQ(DeviceIdentity::modelName(machine), model) << machine;
    }
    const std::string uuid = DeviceIdentity::newUUID();
    EXPECT_TRUE(std::regex_match(uuid, std::regex("[0-9A-F]{8}-([0-9A-F]{4}-){3}[0-9A-F]{12}")))
        << uuid;
    EXPECT_NE(DeviceIdentity::newUUID(), uuid);
}

}  // namespace
}  // namespace NorvAnalytic
