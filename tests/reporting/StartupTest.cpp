#include <NorvAnalytic/NorvAnalytic.h>
#include <gtest/gtest.h>

#include "BuildConfig.h"
#include "support/FakeKeychainBackend.h"
#include "support/RecordingHttpClient.h"
#include "support/RecordingLogSink.h"

namespace NorvAnalytic {
namespace {

// Its own process: nothing has started the SDK yet.
TEST(Startup, NothingHappensBeforeInitWithKeyAndInitResetsWhatItOwns) {
    auto http = std::make_shared<Testing::RecordingHttpClient>();
    auto keychain = std::make_shared<Testing::FakeKeychainBackend>();
    Platform::setHttpClient(http);
    Platform::setKeychainBackend(keychain);
    auto& controller = NorvAnalytics::sharedController();
    controller.setUrlString("http://collector.test/");

    NorvAnalytics::sendAppOpenEvent();
    NorvAnalytics::sendUsername("ann");
    NorvAnalytics::sendRequestStartTime(Date{}, "/a");
    NorvAnalytics::sendRequestEndTime(Date{} + std::chrono::seconds(1), "/a", "p", "r");
    EXPECT_EQ(http->bodies(), std::vector<std::string>{});
    EXPECT_EQ(keychain->copyMatchingCalls(), 0U);

    // initWithKey resets the URL and update checks, keeps the log level.
    NorvAnalytics::setSecureUrl(false);
    NorvAnalytics::checkUpdates(true);
    NorvAnalytics::setLogLevel(2);
    NorvAnalytics::initWithKey("k");
    controller.timer()->invalidate();
    const std::string secure = BuildConfig::kSecureCollectionUrl;
    EXPECT_EQ(controller.urlString(), secure);
    EXPECT_EQ(secure.rfind("https://", 0), 0U);
    EXPECT_FALSE(controller.checkUpdates());
    EXPECT_EQ(controller.logLevel(), 2);
    EXPECT_TRUE(controller.isEnabled());
    NorvAnalytics::setSecureUrl(false);
    EXPECT_EQ(controller.urlString(), "http://" + secure.substr(8));

    // The start before initWithKey set the end's entry aside: the end finds nothing.
    NorvAnalytics::sendRequestEndTime(Date{} + std::chrono::seconds(2), "/a", "p", "r");
    EXPECT_EQ(http->bodies(), std::vector<std::string>{});

    // print logs whatever the level and whether collection is on.
    Testing::RecordingLogSink log;
    NorvAnalytics::setLogLevel(0);
    controller.setIsEnabled(false);
    controller.print("hello");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"NorvAnalytic Log :\n hello"});
    EXPECT_EQ(NorvAnalyticVersionNumber, 1.0);
    EXPECT_STREQ(reinterpret_cast<const char*>(NorvAnalyticVersionString),
                 "@(#)PROGRAM:NorvAnalytic  PROJECT:NorvAnalytic-1\n");
}

}  // namespace
}  // namespace NorvAnalytic
