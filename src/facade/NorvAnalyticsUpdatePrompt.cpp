#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/Application.h>
#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/URL.h>
#include <NorvAnalytic/Window.h>

#include "BuildConfig.h"
#include "mainqueue/MainQueueCheck.h"
#include "events/TextFormat.h"
#include "events/VersionComparison.h"

namespace NorvAnalytic {

namespace {

constexpr const char* kManifestLinkPrefix = "itms-services://?action=download-manifest&url=";
// The store app's own scheme: when it is installed, it takes the update over.
constexpr const char* kStoreAppUrl = "lindenStoreQRWPT://";

void open(const std::string& link) {
    auto application = Platform::application();
    if (!application) {
        return;
    }
    if (auto url = URL::URLWithString(link)) {
        application->openURL(*url);
    }
}

}  // namespace

std::string NorvAnalytics::currentVersion() { return TextFormat::version(Bundle::mainBundle()); }

bool NorvAnalytics::isNewVersion(const Text& version) {
    if (!version) {
        return false;
    }
    return VersionComparison::compareNumerically(currentVersion(), *version) < 0;
}

std::shared_ptr<ViewController> NorvAnalytics::topViewController() {
    auto application = Platform::application();
    auto window = application ? application->keyWindow() : nullptr;
    return topViewController(window ? window->rootViewController() : nullptr);
}

std::shared_ptr<ViewController> NorvAnalytics::topViewController(
    std::shared_ptr<ViewController> controller) {
    if (!controller) {
        return nullptr;
    }
    auto presented = controller->presentedViewController();
    if (!presented) {
        return controller;
    }
    if (presented->isNavigationController()) {
        auto stack = presented->viewControllers();
        return topViewController(stack.empty() ? nullptr : stack.back());
    }
    return topViewController(presented);
}

UpdatePromptResult NorvAnalytics::presentUpdatePrompt(const std::optional<VersionEntry>& entry,
                                                      bool forced) {
    assertOnMainQueue();
    const Text version = entry ? entry->no : std::nullopt;
    const std::string downloadLink =
        kManifestLinkPrefix + TextFormat::describe(entry ? entry->download_url : std::nullopt);
    if (!isNewVersion(version)) {
        return UpdatePromptResult::NotNewer;
    }
    if (auto showing = alertController(); showing && showing->isOnScreen()) {
        return UpdatePromptResult::AlreadyShowing;
    }
    auto alert = AlertController::alertControllerWithTitle(
        std::string("New Update Available!"), std::nullopt, AlertControllerStyle::Alert);
    setAlertController(alert);
    alert->addAction(AlertAction::actionWithTitle(
        "Update", AlertActionStyle::Default, [downloadLink](const AlertAction&) {
            NorvAnalytics::sharedController().openUpdateLink(downloadLink);
        }));
    if (!forced) {
        alert->addAction(AlertAction::actionWithTitle("Cancel", AlertActionStyle::Cancel, nullptr));
    }
    if (auto top = topViewController()) {
        top->presentViewController(alert, true, nullptr);
    }
    return UpdatePromptResult::Presented;
}

void NorvAnalytics::openUpdateLink(const std::string& downloadLink) {
    auto bundle = Bundle::mainBundle();
    if (bundle && bundle->bundleIdentifier() == BuildConfig::kStoreAppBundleIdentifier) {
        open(downloadLink);
        return;
    }
    auto application = Platform::application();
    if (auto storeApp = URL::URLWithString(kStoreAppUrl);
        storeApp && application && application->canOpenURL(*storeApp)) {
        application->openURL(*storeApp);
        return;
    }
    open(downloadLink);
}

}  // namespace NorvAnalytic
