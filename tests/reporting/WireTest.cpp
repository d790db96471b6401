#include <NorvAnalytic/CurlHttpClient.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "support/LocalHttpServer.h"
#include "support/ReportingHarness.h"

namespace NorvAnalytic {
namespace {

TEST(Wire, AnEventTravelsOverRealHttpAndItsAnswerIsHandledOnTheMainQueue) {
    Testing::ReportingHarness harness;
    Testing::LocalHttpServer server;
    server.setResponder([](const std::string&, const std::string&) {
        Testing::LocalHttpServer::Answer answer;
        answer.body = R"({"payload":{"analytics_enabled":false}})";
        return answer;
    });
    Platform::setHttpClient(std::make_shared<CurlHttpClient>());
    NorvAnalytics::sharedController().setUrlString(server.url());
    NorvAnalytics::sendAppOpenEvent();
    ASSERT_TRUE(server.waitForCount(1));
    EXPECT_EQ(server.bodies().at(0), harness.body({.typeId = "2", .value = 1.0F}, true));
    // Byte for byte, whatever the host's locale: the server parses a decimal point.
    EXPECT_THAT(server.bodies().at(0),
                testing::AllOf(testing::HasSubstr("&value=1.000000&"),
                               testing::HasSubstr("batteryLevel=75.000000")));
    // The answer reaches the main queue after the server has it: wait for its one line.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (harness.log.lines().empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(harness.log.lines(),
              std::vector<std::string>{
                  R"(Analytic is disabled from server {"analytics_enabled":false})"});
}

}  // namespace
}  // namespace NorvAnalytic
