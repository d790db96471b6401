#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <gtest/gtest.h>

#include "support/ReportingHarness.h"
#include "support/TestApplication.h"

namespace NorvAnalytic {
namespace {

using Testing::LocalHttpServer;
using Testing::ReportingHarness;

LocalHttpServer::Answer answer(int status, std::string body) {
    LocalHttpServer::Answer made;
    made.status = status;
    made.body = std::move(body);
    return made;
}

// Every answer of the server is `next`, until changed.
void answerWith(ReportingHarness& harness, const LocalHttpServer::Answer& next) {
    harness.server.setResponder([next](const std::string&, const std::string&) { return next; });
}

std::size_t savedCount() {
    std::size_t count = 0;
    MainQueue::main().sync([&] { count = Event::savedEvents().size(); });
    return count;
}

bool enabled() { return NorvAnalytics::sharedController().isEnabled(); }

class Response : public ::testing::Test {
protected:
    void SetUp() override {
        Bundle::setMainBundle(std::make_shared<Bundle>(
            "com.example.host", Bundle::InfoDictionary{{"CFBundleShortVersionString", "2.3"},
                                                       {"CFBundleVersion", "41"}}));
        application = std::make_shared<Testing::TestApplication>();
        root = Testing::TestViewController::plain();
        application->setKeyWindow(std::make_shared<Testing::TestWindow>(root));
        Platform::setApplication(application);
    }
    void TearDown() override {
        Platform::setApplication(nullptr);
        NorvAnalytics::checkUpdates(false);
        NorvAnalytics::setLogLevel(0);
    }

    // Sends one app-open event answered with body, and returns the console lines it caused.
    std::vector<std::string> appOpenAnswered(const std::string& body, int status = 200) {
        answerWith(harness, answer(status, body));
        harness.log.clear();
        NorvAnalytics::sendAppOpenEvent();
        harness.settle();
        return harness.log.lines();
    }

    ReportingHarness harness;
    std::shared_ptr<Testing::TestApplication> application;
    std::shared_ptr<Testing::TestViewController> root;
};

TEST_F(Response, RefusedFirstSendsAreKeptAndEveryLevelLogsItsLine) {
    const std::string uuid = harness.deviceUUID();
    answerWith(harness, answer(500, R"({"message":"try later","code":77})"));
    NorvAnalytics::sendDataNotRetrievedEventWithEndpoint(std::string("/orders"),
                                                         std::string("p"), std::string("r"));
    harness.settle();
    ASSERT_EQ(savedCount(), 1U);
    MainQueue::main().sync([] {
        const Event& kept = *Event::savedEvents().front();
        EXPECT_EQ(kept.eventTypeId, "16");
        EXPECT_EQ(kept.value, "0.000000");
        EXPECT_EQ(kept.endpoint, "/orders");
        EXPECT_EQ(kept.parameters, "p");
        EXPECT_EQ(kept.statusCode, 500);
        EXPECT_EQ(kept.key, std::nullopt);
    });
    EXPECT_TRUE(harness.log.lines().empty());

    // Delivered answers keep nothing; each level has its own line, 0 and others none.
    answerWith(harness, answer(200, R"({"message":"saved","code":200})"));
    const std::vector<std::pair<int, std::string>> levels = {
        {1, "NorvAnalytic Log :\n type = Page Open,\n message = saved,\n deviceUUID = " + uuid},
        {2, "NorvAnalytic Log :\n type = Page Open,\n message = saved,\n deviceUUID = " + uuid +
                ",\n code = 200"},
        {3, "NorvAnalytic Log :\n type = Page Open,\n message = saved,\n deviceUUID = " + uuid +
                ",\n code = 200,\n parameters = key=test-key&value=0.000000&type=7&"
                "parameters=(null)&response=(null)&device_uuid=" + uuid +
                "&pageName=Home&vbf_version=1.7.4&device_model=iPhone 7&system_version=17.1&"
                "is_test_device=1&version=1.7.4&is_simulator=0"},
    };
    for (const auto& [level, line] : levels) {
        NorvAnalytics::setLogLevel(level);
        harness.log.clear();
        NorvAnalytics::sendEventWithPageName(std::string("Home"));
        harness.settle();
        EXPECT_EQ(harness.log.lines(), std::vector<std::string>{line}) << "level " << level;
    }
    for (int level : {0, 5, -1}) {
        NorvAnalytics::setLogLevel(level);
        harness.log.clear();
        NorvAnalytics::sendEventWithPageName(std::string("Home"));
        harness.settle();
        EXPECT_TRUE(harness.log.lines().empty()) << "level " << level;
    }
    EXPECT_EQ(savedCount(), 1U);

    // An empty refusal is still an answer: kept. A request with no answer at all is not.
    answerWith(harness, answer(503, ""));
    NorvAnalytics::sendUserLogoutEvent();
    harness.settle();
    EXPECT_EQ(savedCount(), 2U);
    NorvAnalytics::sharedController().setUrlString(std::string("http://127.0.0.1:1/x"));
    NorvAnalytics::setLogLevel(3);
    harness.log.clear();
    NorvAnalytics::sendAppOpenEvent();
    harness.settle();
    EXPECT_EQ(savedCount(), 2U);
    EXPECT_TRUE(harness.log.lines().empty());
    EXPECT_TRUE(enabled());
}

TEST_F(Response, AppOpenAnswersSwitchCollectionOnAndOff) {
    const std::string uuid = harness.deviceUUID();
    // A null payload leaves collection as it is.
    EXPECT_TRUE(appOpenAnswered(R"({"message":"m","payload":null})").empty());
    EXPECT_TRUE(enabled());

    NorvAnalytics::setLogLevel(1);
    EXPECT_EQ(appOpenAnswered(R"({"payload":{"analytics_enabled":true}})"),
              std::vector<std::string>{"NorvAnalytic Log :\n Analytic is enabled,\n type = App "
                                       "Open,\n message = (null),\n deviceUUID = " + uuid});
    NorvAnalytics::setLogLevel(0);
    EXPECT_EQ(appOpenAnswered(R"({"payload":{"analytics_enabled":true}})"),
              std::vector<std::string>{"NorvAnalytic Log :\n Analytic is enabled,\n message = "
                                       "(null)"});
    NorvAnalytics::setLogLevel(5);
    EXPECT_EQ(appOpenAnswered(R"({"payload":{"analytics_enabled":"Yes"}})"),
              std::vector<std::string>{"NorvAnalytic Log :\n Analytic is enabled,\n (null)"});
    NorvAnalytics::setLogLevel(0);

    // The truth of "analytics_enabled", as the server may write it.
    const std::vector<std::pair<std::string, bool>> truths = {
        {"true", true},    {"2", true},       {"0.5", true},      {R"("yes")", true},
        {R"(" +007")", true}, {R"("T")", true}, {"false", false},   {"0", false},
        {R"("no")", false}, {R"("0")", false}, {R"("")", false},   {"null", false},
        {"[1]", false},    {R"({"a":1})", false},
    };
    for (const auto& [value, on] : truths) {
        NorvAnalytics::initWithKey(std::string("test-key"));
        NorvAnalytics::sharedController().setUrlString(harness.server.url());
        appOpenAnswered(R"({"payload":{"analytics_enabled":)" + value + "}}");
        EXPECT_EQ(enabled(), on) << value;
        if (auto timer = NorvAnalytics::sharedController().timer()) {
            timer->invalidate();
        }
    }

    // Switching off: the timer stops, one unprefixed line whatever the level, and later
    // events are dropped.
    NorvAnalytics::initWithKey(std::string("test-key"));
    NorvAnalytics::sharedController().setUrlString(harness.server.url());
    auto timer = NorvAnalytics::sharedController().timer();
    NorvAnalytics::setLogLevel(3);
    EXPECT_EQ(appOpenAnswered(R"({"message":"bye","payload":{"analytics_enabled":false,"x":[1]}})"),
              std::vector<std::string>{
                  R"(Analytic is disabled from server {"analytics_enabled":false,"x":[1]})"});
    EXPECT_FALSE(enabled());
    EXPECT_FALSE(timer->isValid());
    const std::size_t before = harness.server.count();
    NorvAnalytics::sendUserLogoutEvent();
    harness.settle();
    EXPECT_EQ(harness.server.count(), before);

    // An empty object, plain text, an array or a payload that is not an object all switch
    // collection off, with (null) for the payload.
    for (const std::string body : {"{}", "not json", "[1,2]", R"({"payload":[true]})", ""}) {
        NorvAnalytics::initWithKey(std::string("test-key"));
        NorvAnalytics::sharedController().setUrlString(harness.server.url());
        EXPECT_EQ(appOpenAnswered(body),
                  std::vector<std::string>{"Analytic is disabled from server (null)"})
            << body;
        EXPECT_FALSE(enabled()) << body;
    }
    NorvAnalytics::initWithKey(std::string("test-key"));
    NorvAnalytics::sharedController().setUrlString(harness.server.url());
}

TEST_F(Response, NewerVersionsRaiseOneUpdateAlertAtATime) {
    const std::string uuid = harness.deviceUUID();
    const auto versions = [](const std::string& forced, const std::string& offered) {
        return R"({"message":"m","payload":{"analytics_enabled":true,"force_version":)" +
               forced + R"(,"offer_version":)" + offered + "}}";
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

    // An offered newer version: "Update" then "Cancel", over the top-most screen.
    const auto lines = appOpenAnswered(
        versions("null", R"({"no":"2.3.42","download_url":"https://h/app.plist"})"));
    ASSERT_EQ(root->presentedAlerts().size(), 1U);
    auto offered = root->presentedAlerts().back();
    EXPECT_EQ(controller.alertController(), offered);
    EXPECT_EQ(offered->title(), "New Update Available!");
    EXPECT_EQ(offered->message(), std::nullopt);
    ASSERT_EQ(offered->actions().size(), 2U);
    EXPECT_EQ(offered->actions()[0]->title(), "Update");
    EXPECT_EQ(offered->actions()[0]->style(), AlertActionStyle::Default);
    EXPECT_EQ(offered->actions()[1]->title(), "Cancel");
    EXPECT_EQ(offered->actions()[1]->style(), AlertActionStyle::Cancel);
    EXPECT_EQ(lines.size(), 1U);

    // While it is on screen, a qualifying answer shows nothing and prints no event line.
    EXPECT_TRUE(appOpenAnswered(versions(R"({"no":"2.4"})", "null")).empty());
    EXPECT_EQ(root->presentedAlerts().size(), 1U);

    // "Update" opens the store app when it is there, the manifest link otherwise.
    application->setCanOpenURL("lindenStoreQRWPT", true);
    offered->tapActionAtIndex(0);
    EXPECT_EQ(application->openedURLs(),
              std::vector<std::string>{"lindenStoreQRWPT://"});

    // Dismissed: the next qualifying answer is forced, with "Update" alone.
    appOpenAnswered(versions(R"({"no":"10.0","download_url":"https://h/m.plist"})", "null"));
    ASSERT_EQ(root->presentedAlerts().size(), 2U);
    auto forced = root->presentedAlerts().back();
    ASSERT_EQ(forced->actions().size(), 1U);
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
    EXPECT_EQ(controller.presentUpdatePrompt(VersionEntry{std::string("1.1"), std::nullopt},
                                             false),
              UpdatePromptResult::Presented);
    EXPECT_NE(controller.alertController(), forced);
    EXPECT_FALSE(controller.alertController()->isOnScreen());
}

TEST_F(Response, TopControllerWalkUnwrapsOnlyPresentedControllers) {
    auto& controller = NorvAnalytics::sharedController();
    auto rootNavigation = Testing::TestViewController::navigation(
        {Testing::TestViewController::plain()});
    application->setKeyWindow(std::make_shared<Testing::TestWindow>(rootNavigation));
    EXPECT_EQ(controller.topViewController(), rootNavigation);

    auto deepest = Testing::TestViewController::plain();
    auto modalNavigation = Testing::TestViewController::navigation(
        {Testing::TestViewController::plain(), deepest});
    rootNavigation->setPresentedViewController(modalNavigation);
    EXPECT_EQ(controller.topViewController(), deepest);

    auto sheet = Testing::TestViewController::plain();
    deepest->setPresentedViewController(sheet);
    EXPECT_EQ(controller.topViewController(), sheet);
}

TEST_F(Response, HostileAnswersNeitherCrashNorHang) {
    NorvAnalytics::checkUpdates(true);
    NorvAnalytics::setLogLevel(3);
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    std::string deepPayload = R"({"payload":)";
    for (int i = 0; i < 100000; ++i) {
        deepPayload += R"({"a":)";
    }
    deepPayload += "1" + std::string(100000, '}') + "}";
    std::string huge = R"({"message":")" + std::string(50 * 1024 * 1024, 'x') +
                       R"(","payload":{"analytics_enabled":true}})";
    const std::vector<std::string> bodies = {
        deep,
        deepPayload,
        R"({"payload":{"analytics_enabled":true,"force_version":{"no":42}}})",
        R"({"payload":{"analytics_enabled":true,"force_version":[1,2]}})",
        R"({"payload":{"analytics_enabled":true,"force_version":{"no":"99",)"
        R"("download_url":"$(touch /tmp/norv-pwned); `id` | rm -rf ~"}}})",
        "\xFF\xFE garbage",
    };
    for (const auto& body : bodies) {
        NorvAnalytics::initWithKey(std::string("test-key"));
        NorvAnalytics::checkUpdates(true);
        NorvAnalytics::sharedController().setUrlString(harness.server.url());
        appOpenAnswered(body);
    }
    // The metacharacters arrive as a link and nothing more.
    auto alert = NorvAnalytics::sharedController().alertController();
    ASSERT_NE(alert, nullptr);
    alert->tapActionAtIndex(0);
    EXPECT_EQ(application->openedURLs().size(), 0U);
    EXPECT_FALSE(std::filesystem::exists("/tmp/norv-pwned"));

    NorvAnalytics::setLogLevel(0);
    NorvAnalytics::initWithKey(std::string("test-key"));
    NorvAnalytics::sharedController().setUrlString(harness.server.url());
    appOpenAnswered(huge);
    EXPECT_TRUE(enabled());
}

}  // namespace
}  // namespace NorvAnalytic
