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
    const std::string secure =
        "https://" + std::string(BuildConfig::kCollectionServerHost) + "/api/v3/saveEvent";
    EXPECT_EQ(controller.urlString(), secure);
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

TEST(Startup, TheCollectionHostIsCheckedAndBothUrlFormsAreBuiltOnIt) {
    Platform::setHttpClient(std::make_shared<Testing::RecordingHttpClient>());
    Platform::setKeychainBackend(std::make_shared<Testing::FakeKeychainBackend>());
    std::vector<std::pair<DiagnosticLevel, std::string>> lines;
    Platform::setDiagnosticsSink([&](DiagnosticLevel level, const std::string& message) {
        lines.emplace_back(level, message);
    });
    const std::string kept = "It stays \"collector.example:8080\".";
    ASSERT_TRUE(NorvAnalytics::setCollectionServerHost("collector.example:8080"));
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"", "it is empty"},
        {"collector .example", "a space"},
        {"collector\t:80", "a space"},
        {"http://collector:80", "a scheme"},
        {"collector:80/api/v3/saveEvent", "a path"},
        {"collector?x=1", "a path"},
        {"ann@collector", "user information"},
        {"collector:99999", "not a host name"},
        {"collector:80a", "not a host name"},
    };
    for (const auto& [host, reason] : refused) {
        lines.clear();
        EXPECT_FALSE(NorvAnalytics::setCollectionServerHost(host)) << host;
        ASSERT_EQ(lines.size(), 1U) << host;
        EXPECT_EQ(lines[0].first, DiagnosticLevel::Warning);
        EXPECT_NE(lines[0].second.find(reason), std::string::npos) << lines[0].second;
        EXPECT_NE(lines[0].second.find(kept), std::string::npos) << lines[0].second;
    }
    auto& controller = NorvAnalytics::sharedController();
    for (const std::string host : {"collector.example:8080", "10.0.0.2", "[::1]:8787"}) {
        ASSERT_TRUE(NorvAnalytics::setCollectionServerHost(host)) << host;
        NorvAnalytics::initWithKey("k");
        controller.timer()->invalidate();
        EXPECT_EQ(controller.urlString(), "https://" + host + "/api/v3/saveEvent");
        NorvAnalytics::setSecureUrl(false);
        EXPECT_EQ(controller.urlString(), "http://" + host + "/api/v3/saveEvent");
    }

    // A URL the HTTP client cannot post to, and an event dropped while collection is off.
    lines.clear();
    controller.setUrlString("ftp://collector.example/api/v3/saveEvent");
    controller.setUrlString("http://collector.example/api/v3/saveEvent");
    controller.setIsEnabled(false);
    NorvAnalytics::sendAppOpenEvent();
    Platform::setDiagnosticsSink(nullptr);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].first, DiagnosticLevel::Error);
    EXPECT_NE(lines[0].second.find("\"ftp://collector.example/api/v3/saveEvent\" is not"),
              std::string::npos);
    EXPECT_EQ(lines[1], std::make_pair(DiagnosticLevel::Info,
                                       std::string("App Open event (type 2) dropped: collection "
                                                   "is off (before initWithKey, or switched off "
                                                   "by the server)")));
}

}  // namespace
}  // namespace NorvAnalytic
