#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>

#include "support/ReportingHarness.h"
#include "support/TestApplication.h"
#include "support/TestViewController.h"
#include "support/TestWindow.h"

namespace NorvAnalytic {
namespace {

using Lines = std::vector<std::string>;

bool enabled() { return NorvAnalytics::sharedController().isEnabled(); }

class Response : public ::testing::Test {
protected:
    void SetUp() override {
        Bundle::setMainBundle(std::make_shared<Bundle>(
            "com.example.host", Bundle::InfoDictionary{{"CFBundleShortVersionString", "2.3"},
                                                       {"CFBundleVersion", "41"}}));
        application->setKeyWindow(std::make_shared<Testing::TestWindow>(root));
        Platform::setApplication(application);
    }
    void TearDown() override { Platform::setApplication(nullptr); }

    // Sends one event answered with body, and returns the console lines it caused.
    Lines answered(const std::function<void()>& send, const std::string& body, long status = 200) {
        harness.log.clear();
        send();
        harness.http->answerAll(status, body);
        return harness.log.lines();
    }
    Lines appOpenAnswered(const std::string& body, long status = 200) {
        return answered([] { NorvAnalytics::sendAppOpenEvent(); }, body, status);
    }

    Testing::ReportingHarness harness;
    std::shared_ptr<Testing::TestApplication> application =
        std::make_shared<Testing::TestApplication>();
    std::shared_ptr<Testing::TestViewController> root = Testing::TestViewController::plain();
};

TEST_F(Response, RefusedFirstSendsAreKeptAndEveryLevelLogsItsLine) {
    const std::string uuid = harness.deviceUUID();
    const auto dataNotRetrieved = [] {
        NorvAnalytics::sendDataNotRetrievedEventWithEndpoint("/orders", "p", "r");
    };
    EXPECT_EQ(answered(dataNotRetrieved, R"({"message":"try later","code":77})", 500), Lines{});
    ASSERT_EQ(harness.savedCount(), 1U);
    // What the kept event carries is checked by its resend.
    MainQueue::main().sync([] { EXPECT_EQ(Event::savedEvents().front()->statusCode, 500); });

    // Delivered answers keep nothing; each level has its own line, 0 and others none.
    const auto page = [] { NorvAnalytics::sendEventWithPageName("Home"); };
    const std::string head =
        "NorvAnalytic Log :\n type = Page Open,\n message = saved,\n deviceUUID = " + uuid;
    const std::string body = harness.body({.typeId = "7", .pageName = "Home"});
    const std::vector<std::pair<int, Lines>> levels = {
        {1, {head}}, {2, {head + ",\n code = 200"}},
        {3, {head + ",\n code = 200,\n parameters = " + body}}, {0, {}}, {5, {}}, {-1, {}}};
    for (const auto& [level, lines] : levels) {
        NorvAnalytics::setLogLevel(level);
        EXPECT_EQ(answered(page, R"({"message":"saved","code":200})"), lines) << level;
    }
    EXPECT_EQ(harness.savedCount(), 1U);

    // A request with no answer at all is dropped, and only the diagnostics sink hears of it.
    std::vector<std::string> warnings;
    Platform::setDiagnosticsSink([&](DiagnosticLevel level, const std::string& message) {
        EXPECT_EQ(level, DiagnosticLevel::Warning);
        warnings.push_back(message);
    });
    NorvAnalytics::sendAppOpenEvent();
    harness.http->failAll();
    Platform::setDiagnosticsSink(nullptr);
    EXPECT_EQ(warnings, Lines{"App Open event (type 2) was not delivered: failed"});
    EXPECT_EQ(harness.savedCount(), 1U);
    EXPECT_TRUE(enabled());
}

TEST_F(Response, AppOpenAnswersSwitchCollectionOnAndOff) {
    const std::string uuid = harness.deviceUUID();
    // A null payload leaves collection as it is; other types never touch it.
    EXPECT_EQ(appOpenAnswered(R"({"message":"m","payload":null})"), Lines{});
    answered([] { NorvAnalytics::sendUserLogoutEvent(); }, "{}");
    EXPECT_TRUE(enabled());

    const std::string on = R"({"payload":{"analytics_enabled":true}})";
    const std::string enabledLine = "NorvAnalytic Log :\n Analytic is enabled,\n ";
    const std::vector<std::pair<int, Lines>> levels = {
        {1, {enabledLine + "type = App Open,\n message = (null),\n deviceUUID = " + uuid}},
        {0, {enabledLine + "message = (null)"}},
        {5, {enabledLine + "(null)"}}};
    for (const auto& [level, lines] : levels) {
        NorvAnalytics::setLogLevel(level);
        EXPECT_EQ(appOpenAnswered(on), lines) << level;
    }

    // Switching off: one unprefixed line whatever the level, and later events are dropped.
    NorvAnalytics::setLogLevel(3);
    EXPECT_EQ(appOpenAnswered(R"({"payload":{"analytics_enabled":false,"x":[1]}})"),
              Lines{R"(Analytic is disabled from server {"analytics_enabled":false,"x":[1]})"});
    EXPECT_FALSE(enabled());
    harness.http->clear();
    NorvAnalytics::sendUserLogoutEvent();
    EXPECT_TRUE(harness.http->bodies().empty());

    // An empty object, plain text, an array or a payload that is not an object all switch
    // collection off, with (null) for the payload.
    for (const std::string body : {"{}", "not json", "[1,2]", R"({"payload":[true]})", ""}) {
        harness.restart();
        EXPECT_EQ(appOpenAnswered(body), Lines{"Analytic is disabled from server (null)"}) << body;
        EXPECT_FALSE(enabled()) << body;
    }
}

TEST_F(Response, NewerVersionsRaiseOneUpdateAlertAtATime) {
    const auto versions = [](const std::string& forced, const std::string& offered) {
        return R"({"message":"m","payload":{"analytics_enabled":true,"force_version":)" + forced +
               R"(,"offer_version":)" + offered + "}}";
    };
    auto& controller = NorvAnalytics::sharedController();
    EXPECT_EQ(controller.currentVersion(), "2.3.41");

    // Update checks are off after start: nothing is read.
    appOpenAnswered(versions(R"({"no":"9.0","download_url":"u"})", "null"));
    EXPECT_TRUE(root->presentedAlerts().empty());

    NorvAnalytics::checkUpdates(true);
    NorvAnalytics::setLogLevel(1);
    // An absent forced version hides the offer; not newer shows nothing.
    appOpenAnswered(R"({"payload":{"analytics_enabled":true,"offer_version":{"no":"3.0"}}})");
    appOpenAnswered(versions("null", R"({"no":"2.3","download_url":"u"})"));
    appOpenAnswered(versions(R"({"no":"2.3.41"})", "null"));
    EXPECT_TRUE(root->presentedAlerts().empty());

    // An offered newer version, over the top-most screen, with no message.
    EXPECT_EQ(appOpenAnswered(versions("null", R"({"no":"2.3.42","download_url":"u"})")).size(),
              1U);
    ASSERT_EQ(root->presentedAlerts().size(), 1U);
    auto offered = root->presentedAlerts().back();
    EXPECT_EQ(controller.alertController(), offered);
    EXPECT_EQ(offered->message(), std::nullopt);

    // While it is on screen, a qualifying answer shows nothing and prints no event line.
    EXPECT_EQ(appOpenAnswered(versions(R"({"no":"2.4"})", "null")), Lines{});
    EXPECT_EQ(root->presentedAlerts().size(), 1U);

    // "Update" opens the store app when it is there, the manifest link otherwise.
    application->setCanOpenURL("lindenStoreQRWPT", true);
    offered->tapActionAtIndex(0);
    EXPECT_EQ(application->openedURLs(), Lines{"lindenStoreQRWPT://"});

    // Dismissed: the next qualifying answer is forced.
    appOpenAnswered(versions(R"({"no":"10.0","download_url":"https://h/m.plist"})", "null"));
    ASSERT_EQ(root->presentedAlerts().size(), 2U);
    auto forced = root->presentedAlerts().back();
    application->setCanOpenURL("lindenStoreQRWPT", false);
    forced->tapActionAtIndex(0);
    EXPECT_EQ(application->openedURLs().back(),
              "itms-services://?action=download-manifest&url=https://h/m.plist");

    // The store app itself always opens the manifest; a link with a space opens nothing.
    Bundle::setMainBundle(std::make_shared<Bundle>(
        "com.norvanalytic.LindenStore",
        Bundle::InfoDictionary{{"CFBundleShortVersionString", "1"}, {"CFBundleVersion", "0"}}));
    application->setCanOpenURL("lindenStoreQRWPT", true);
    controller.openUpdateLink("itms-services://?action=download-manifest&url=https://h/s.plist");
    EXPECT_EQ(application->openedURLs().back(),
              "itms-services://?action=download-manifest&url=https://h/s.plist");
    const std::size_t opened = application->openedURLs().size();
    controller.openUpdateLink("itms-services://?action=download-manifest&url=https://h/a b");
    EXPECT_EQ(application->openedURLs().size(), opened);

    // No key window: the alert is built and kept, not shown, and still counts as presented.
    application->setKeyWindow(nullptr);
    MainQueue::main().sync([&] {
        EXPECT_EQ(controller.presentUpdatePrompt(VersionEntry{"1.1", std::nullopt}, false),
                  UpdatePromptResult::Presented);
    });
    EXPECT_NE(controller.alertController(), forced);
    EXPECT_FALSE(controller.alertController()->isOnScreen());
}

TEST_F(Response, TopControllerWalkUnwrapsOnlyPresentedControllers) {
    auto& controller = NorvAnalytics::sharedController();
    auto rootNavigation =
        Testing::TestViewController::navigation({Testing::TestViewController::plain()});
    application->setKeyWindow(std::make_shared<Testing::TestWindow>(rootNavigation));
    EXPECT_EQ(controller.topViewController(), rootNavigation);

    auto deepest = Testing::TestViewController::plain();
    auto modalNavigation =
        Testing::TestViewController::navigation({Testing::TestViewController::plain(), deepest});
    rootNavigation->setPresentedViewController(modalNavigation);
    EXPECT_EQ(controller.topViewController(), deepest);

    auto sheet = Testing::TestViewController::plain();
    deepest->setPresentedViewController(sheet);
    EXPECT_EQ(controller.topViewController(), sheet);
}

}  // namespace
}  // namespace NorvAnalytic
