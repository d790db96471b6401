#include <NorvAnalytic/NorvAnalytic.h>

#include <gtest/gtest.h>

#include "BuildConfig.h"
#include "support/CountingHttpClient.h"
#include "support/LocalHttpServer.h"
#include "support/RecordingLogSink.h"
#include "support/ScratchKeychain.h"

namespace NorvAnalytic {
namespace {

// Runs first in its own process: nothing has started the SDK yet.
TEST(Startup, NothingIsSentOrKeptBeforeInitWithKey) {
    Testing::ScratchKeychain keychain;
    Testing::LocalHttpServer server;
    auto http = std::make_shared<Testing::CountingHttpClient>(std::make_shared<CurlHttpClient>());
    Platform::setHttpClient(http);
    NorvAnalytics::sharedController().setUrlString(server.url());

    NorvAnalytics::sendAppOpenEvent();
    NorvAnalytics::sendUsername(std::string("ann"));
    NorvAnalytics::sendEventWithType(3, 1.0F, std::nullopt, std::nullopt, std::nullopt);
    NorvAnalytics::sendRequestStartTime(Date{}, std::string("/a"));
    NorvAnalytics::sendRequestEndTime(Date{} + std::chrono::seconds(1), std::string("/a"),
                                      std::nullopt, std::nullopt);
    EXPECT_EQ(http->sent(), 0U);
    MainQueue::main().sync([] { EXPECT_TRUE(Event::savedEvents().empty()); });
    // No device UUID was made either.
    EXPECT_FALSE(Keychain::itemForKey(std::string("device_uuid"),
                                      std::string("NorvAnalyticDeviceUUID"), nullptr));

    // The start set the end's entry aside: after initWithKey the end finds nothing.
    NorvAnalytics::initWithKey(std::string("k"));
    NorvAnalytics::sharedController().timer()->invalidate();
    NorvAnalytics::sharedController().setUrlString(server.url());
    NorvAnalytics::sendRequestEndTime(Date{} + std::chrono::seconds(2), std::string("/a"),
                                      std::nullopt, std::nullopt);
    EXPECT_EQ(http->sent(), 0U);
    NorvAnalytics::sharedController().setIsEnabled(false);
    Platform::setHttpClient(nullptr);
}

TEST(Startup, InitWithKeyResetsUrlAndUpdateChecksButKeepsTheLogLevel) {
    Testing::ScratchKeychain keychain;
    auto& controller = NorvAnalytics::sharedController();
    NorvAnalytics::setSecureUrl(false);
    NorvAnalytics::checkUpdates(true);
    NorvAnalytics::setLogLevel(2);
    NorvAnalytics::initWithKey(std::string("k"));
    controller.timer()->invalidate();
    const std::string secure = BuildConfig::kSecureCollectionUrl;
    EXPECT_EQ(controller.urlString(), secure);
    EXPECT_EQ(secure.rfind("https://", 0), 0U);
    EXPECT_EQ(secure.substr(secure.size() - 17), "/api/v3/saveEvent");
    EXPECT_FALSE(controller.checkUpdates());
    EXPECT_EQ(controller.logLevel(), 2);
    EXPECT_TRUE(controller.isEnabled());
    NorvAnalytics::setSecureUrl(false);
    EXPECT_EQ(controller.urlString(), "http://" + secure.substr(8));

    // print: logs whatever the level and whether collection is on.
    Testing::RecordingLogSink log;
    NorvAnalytics::setLogLevel(0);
    controller.setIsEnabled(false);
    controller.print("hello");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"NorvAnalytic Log :\n hello"});
}

TEST(Startup, CatalogueMapsIndicesToIdsAndIdsToNames) {
    auto& controller = NorvAnalytics::sharedController();
    const std::vector<std::pair<std::int32_t, Text>> ids = {
        {0, "1"},  {1, "2"},  {7, "8"},  {8, "15"}, {12, "19"},
        {16, "23"}, {17, std::nullopt}, {-1, std::nullopt},
        {2147483647, std::nullopt}, {-2147483647 - 1, std::nullopt}};
    for (const auto& [index, id] : ids) {
        EXPECT_EQ(controller.setTypeId(index), id) << index;
    }
    EXPECT_EQ(controller.getTypeName(std::string("16")), "Data not retreived");
    EXPECT_EQ(controller.getTypeName(std::string("22")), "Onesignal player id ");
    EXPECT_EQ(controller.getTypeName(std::string("2")), "App Open");
    for (const Text& unnamed : {Text("19"), Text("9"), Text(""), Text(std::nullopt), Text("02"),
                                Text(" 2")}) {
        EXPECT_EQ(controller.getTypeName(unnamed), "") << unnamed.value_or("nil");
    }
    EXPECT_EQ(NorvAnalyticVersionNumber, 1.0);
    EXPECT_STREQ(reinterpret_cast<const char*>(NorvAnalyticVersionString),
                 "@(#)PROGRAM:NorvAnalytic  PROJECT:NorvAnalytic-1\n");
}

}  // namespace
}  // namespace NorvAnalytic
