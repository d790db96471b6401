#include <gtest/gtest.h>

#include "events/ServerAnswer.h"

namespace NorvAnalytic {
namespace {

TEST(ServerAnswer, TruthOfAnalyticsEnabledAsTheServerMayWriteIt) {
    const std::vector<std::pair<std::string, bool>> rows = {
        {"true", true},       {"2", true},           {"0.5", true},       {R"("yes")", true},
        {R"("\t +007")", true}, {R"("T")", true},      {"false", false},    {"0", false},
        {R"("no")", false},   {R"("0")", false},     {R"("")", false},    {"null", false},
        {"[1]", false},       {R"({"a":1})", false}, {R"(" -0")", false},
    };
    for (const auto& [value, on] : rows) {
        const auto json = ServerAnswer::Json::parse(value);
        EXPECT_EQ(ServerAnswer::truth(&json), on) << value;
    }
    EXPECT_FALSE(ServerAnswer::truth(nullptr));
}

TEST(ServerAnswer, OnlyObjectsWithinTheDepthLimitAreDocuments) {
    // Deeper than any answer nests: not JSON, so printing it never recurses that far.
    std::string deep = "1";
    for (int i = 0; i < 600; ++i) {
        deep = R"({"a":)" + deep + "}";
    }
    for (const std::string body : {"[1]", "\"x\"", "not json", "", deep.c_str()}) {
        EXPECT_FALSE(ServerAnswer::parse(body)) << body.substr(0, 10);
    }
    ASSERT_TRUE(ServerAnswer::parse(R"({"a":[1,{"b":null}]})"));
    const auto entry = ServerAnswer::Json::parse(R"({"no":42,"download_url":"u"})");
    EXPECT_EQ(ServerAnswer::versionEntry(&entry)->no, std::nullopt);
    const auto printed = ServerAnswer::Json::parse(R"([true,null,1.5,"t",{"z":1,"a":2}])");
    EXPECT_EQ(ServerAnswer::describe(&printed), R"([true,null,1.5,"t",{"z":1,"a":2}])");
}

}  // namespace
}  // namespace NorvAnalytic
