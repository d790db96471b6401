#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "BuildConfig.h"
#include "support/TestApplication.h"

// Feeds arbitrary answers to the response handler. The first three bytes choose the situation
// the answer meets (status, event type, resend, log level, update checks, the host's screens,
// a tap on the alert afterwards); the rest is the body.

namespace {

using namespace NorvAnalytic;

constexpr std::array<long, 8> statusCodes{200, 200, 500, 404, 302, 0, 503, 201};
constexpr std::array<std::int32_t, 6> logLevels{0, 1, 2, 3, 5, -1};
const std::array<Text, 4> otherTypeIds{Text("1"), Text("23"), Text("99"), std::nullopt};

struct Situation {
    std::optional<HttpResponse> response;
    Text typeId;
    bool isSavedEvent;
    std::int32_t logLevel;
    bool checkUpdates;
    bool dataAbsent;
    std::size_t tapAfterwards;  // 0: no tap, else the action index + 1
    bool hasKeyWindow;
    bool modalNavigation;
    bool isStoreApp;
    bool storeAppInstalled;
    bool hasTimer;
    bool alertAlreadyOnScreen;
};

Situation situationFrom(const std::uint8_t* bytes) {
    Situation situation{};
    const std::uint8_t status = bytes[0];
    // 14: the request failed without an answer; 15: a body came without a status.
    situation.dataAbsent = status % 16 == 14;
    if (status % 16 >= 14) {
        situation.response = std::nullopt;
    } else {
        situation.response =
            HttpResponse{status < 128 ? statusCodes[status % statusCodes.size()] : status * 3L};
    }
    const std::uint8_t flags = bytes[1];
    situation.typeId = (flags & 1U) != 0 ? Text("2") : otherTypeIds[(flags >> 1U) & 3U];
    situation.isSavedEvent = (flags & 8U) != 0;
    situation.logLevel = logLevels[((flags >> 4U) & 7U) % logLevels.size()];
    situation.checkUpdates = (flags & 128U) != 0;
    const std::uint8_t host = bytes[2];
    situation.tapAfterwards = host & 3U;
    situation.hasKeyWindow = (host & 4U) != 0;
    situation.modalNavigation = (host & 8U) != 0;
    situation.isStoreApp = (host & 16U) != 0;
    situation.storeAppInstalled = (host & 32U) != 0;
    situation.hasTimer = (host & 64U) != 0;
    situation.alertAlreadyOnScreen = (host & 128U) != 0;
    return situation;
}

std::shared_ptr<Testing::TestApplication> hostFor(const Situation& situation) {
    auto application = std::make_shared<Testing::TestApplication>();
    application->setCanOpenURL("lindenStoreQRWPT", situation.storeAppInstalled);
    if (situation.hasKeyWindow) {
        auto root = Testing::TestViewController::plain();
        if (situation.modalNavigation) {
            root->setPresentedViewController(
                Testing::TestViewController::navigation({Testing::TestViewController::plain()}));
        }
        application->setKeyWindow(std::make_shared<Testing::TestWindow>(root));
    }
    return application;
}

void handle(const Situation& situation, std::string body) {
    NorvAnalytics& controller = NorvAnalytics::sharedController();
    Event::savedEvents().clear();
    controller.setIsEnabled(true);
    NorvAnalytics::setLogLevel(situation.logLevel);
    NorvAnalytics::checkUpdates(situation.checkUpdates);
    Bundle::setMainBundle(std::make_shared<Bundle>(
        situation.isStoreApp ? BuildConfig::kStoreAppBundleIdentifier : "com.example.host",
        Bundle::InfoDictionary{{"CFBundleShortVersionString", "2.3"}, {"CFBundleVersion", "41"}}));
    Platform::setApplication(hostFor(situation));
    std::shared_ptr<AlertController> earlierAlert;
    if (situation.alertAlreadyOnScreen) {
        earlierAlert = AlertController::alertControllerWithTitle(
            "New Update Available!", std::nullopt, AlertControllerStyle::Alert);
        earlierAlert->setOnScreen(true);
    }
    controller.setAlertController(earlierAlert);
    controller.setTimer(situation.hasTimer
                            ? MainQueue::main().scheduledTimer(std::chrono::hours(1), true, [] {})
                            : nullptr);

    EventResponseContext context;
    context.typeId = situation.typeId;
    context.parameters = "user=fuzz";
    context.deviceUUID = "00000000-0000-0000-0000-000000000000";
    context.requestBody = "type_id=2&value=1.000000";
    context.value = 1.0F;
    context.isSavedEvent = situation.isSavedEvent;
    std::optional<std::string> data;
    if (!situation.dataAbsent) {
        data = std::move(body);
    }
    NorvAnalytics::handleEventResponse(context, data, situation.response, std::nullopt);

    // The one rule an answer can be checked against whatever its body: a first send that was
    // answered with anything but 200 is kept, and nothing else is.
    const long status = situation.response ? situation.response->statusCode : 0;
    const bool kept = data && status != 200 && !situation.isSavedEvent;
    if (Event::savedEvents().size() != (kept ? 1U : 0U)) {
        std::abort();
    }

    if (auto alert = controller.alertController();
        alert && alert->isOnScreen() && situation.tapAfterwards != 0) {
        alert->tapActionAtIndex(situation.tapAfterwards == 3 ? 7 : situation.tapAfterwards - 1);
    }
    if (auto timer = controller.timer()) {
        timer->invalidate();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = [] {
        Platform::setLogSink([](const std::string&) {});
        return true;
    }();
    static_cast<void>(quiet);
    if (size < 3) {
        return 0;
    }
    const Situation situation = situationFrom(data);
    std::string body(reinterpret_cast<const char*>(data) + 3, size - 3);
    MainQueue::main().sync([&] { handle(situation, std::move(body)); });
    return 0;
}
