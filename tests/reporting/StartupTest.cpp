#include <NorvAnalytic/NorvAnalytic.h>
#include <gtest/gtest.h>

#include "BuildConfig.h"
#include "support/ReportingHarness.h"

namespace NorvAnalytic {
namespace {

// Its own process: nothing has started the SDK yet.
TEST(Startup, NothingHappensBeforeInitWithKeyAndInitResetsWhatItOwnsOnTheCollectionHost) {
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

    // The start before initWithKey set the end's entry aside: the end finds nothing.
    NorvAnalytics::sendRequestEndTime(Date{} + std::chrono::seconds(2), "/a", "p", "r");
    EXPECT_EQ(http->bodies(), std::vector<std::string>{});

    // print logs whatever the level and whether collection is on.
    Testing::RecordingLogSink log;
    NorvAnalytics::setLogLevel(0);
    controller.setIsEnabled(false);
    controller.print("hello");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"NorvAnalytic Log :\n hello"});

    // The collection host: checked, and both URL forms are built on it.
    std::vector<std::string> lines;  // the level's digit, then the message
    Platform::setDiagnosticsSink([&](DiagnosticLevel level, const std::string& message) {
        lines.push_back(static_cast<char>('0' + static_cast<int>(level)) + message);
    });
    ASSERT_TRUE(NorvAnalytics::setCollectionServerHost("collector.example:8080"));
    // Each refusal is one warning with its reason; the host stays.
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"", "is empty"},
        {"collector\t:80", "holds a space or a control character"},
        {"http://collector:80", "holds a scheme; the SDK adds one"},
        {"collector:80/api", "holds a path; the SDK adds one"},
        {"ann@collector", "holds user information"},
        {"c:99999", "is not a host with an optional port up to 65535"}};
    for (const auto& [host, reason] : refused) {
        lines.clear();
        EXPECT_FALSE(NorvAnalytics::setCollectionServerHost(host));
        Testing::ReportingHarness::waitForDiagnostics();
        EXPECT_EQ(lines,
                  std::vector<std::string>{"2Collection server host \"" + host + "\" refused: it " +
                                           reason + ". It stays \"collector.example:8080\"."});
    }
    // A host with a port, as a bracketed address: both URL forms are built on it.
    ASSERT_TRUE(NorvAnalytics::setCollectionServerHost("[::1]:8787"));
    NorvAnalytics::initWithKey("k");
    controller.timer()->invalidate();
    EXPECT_EQ(controller.urlString(), "https://[::1]:8787/api/v3/saveEvent");
    NorvAnalytics::setSecureUrl(false);
    EXPECT_EQ(controller.urlString(), "http://[::1]:8787/api/v3/saveEvent");
    Platform::setDiagnosticsSink(nullptr);
}

}  // namespace
}  // namespace NorvAnalytic
