#include <NorvAnalytic/CurlHttpClient.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>

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
    EXPECT_EQ(server.bodies().at(0),
              RequestBody::build({.typeId = "2", .value = 1.0F}, harness.facts(true)));
    ASSERT_TRUE(harness.log.waitForLines(1));
    EXPECT_EQ(harness.log.lines(),
              std::vector<std::string>{
                  R"(Analytic is disabled from server {"analytics_enabled":false})"});
}

}  // namespace
}  // namespace NorvAnalytic
