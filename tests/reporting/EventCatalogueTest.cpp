#include <gtest/gtest.h>

#include "events/EventCatalogue.h"

namespace NorvAnalytic {
namespace {

TEST(EventCatalogue, IndicesNameIdsAndIdsNameTypes) {
    const std::vector<std::tuple<std::int32_t, Text, std::string>> rows = {
        {0, "1", "Response Time"},
        {1, "2", "App Open"},
        {7, "8", "Page Close"},
        {8, "15", "User can not login"},
        {9, "16", "Data not retreived"},
        {12, "19", ""},
        {15, "22", "Onesignal player id "},
        {16, "23", "Device custom name"},
        {17, std::nullopt, ""},
        {-1, std::nullopt, ""},
        {-2147483647 - 1, std::nullopt, ""},
    };
    for (const auto& [index, id, name] : rows) {
        EXPECT_EQ(EventCatalogue::typeId(index), id) << index;
        EXPECT_EQ(EventCatalogue::typeName(id), name) << index;
    }
    for (const Text& unnamed : {Text("9"), Text(""), Text("02"), Text(" 2")}) {
        EXPECT_EQ(EventCatalogue::typeName(unnamed), "") << *unnamed;
        EXPECT_FALSE(EventCatalogue::isAppOpen(unnamed)) << *unnamed;
    }
    EXPECT_TRUE(EventCatalogue::isAppOpen(std::string("2")));
}

}  // namespace
}  // namespace NorvAnalytic
