#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "support/TestApplication.h"
#include "support/TestViewController.h"
#include "support/TestWindow.h"

// Feeds arbitrary answers to the response handler. The first two bytes choose the situation
// the answer meets (status, event type, resend, log level, update checks, whether the store
// app is installed, a tap on the alert afterwards); the rest is the body.

namespace {

using namespace NorvAnalytic;

constexpr std::array<long, 8> statusCodes{200, 200, 500, 404, 302, 0, 503, 201};
constexpr std::array<std::int32_t, 6> logLevels{0, 1, 2, 3, 5, -1};

void handle(const std::uint8_t* situation, std::string body) {
    const std::uint8_t status = situation[0];
    const std::uint8_t flags = situation[1];
    // 14: the request failed without an answer; 15: a body came without a status.
    std::optional<std::string> data;
    if (status % 16 != 14) {
        data = std::move(body);
    }
    std::optional<HttpResponse> response;
    if (status % 16 < 14) {
        response = HttpResponse{status < 128 ? statusCodes[status % statusCodes.size()]
                                             : status * 3L};
    }
    EventResponseContext context;
    context.typeId = (flags & 1U) != 0 ? Text("2") : Text("7");
    context.isSavedEvent = (flags & 2U) != 0;
    context.deviceUUID = "00000000-0000-0000-0000-000000000000";
    context.requestBody = "type=2&value=1.000000";

    NorvAnalytics& controller = NorvAnalytics::sharedController();
    Event::savedEvents().clear();
    controller.setIsEnabled(true);
    controller.setAlertController(nullptr);
    NorvAnalytics::setLogLevel(logLevels[(flags >> 2U) % logLevels.size()]);
    NorvAnalytics::checkUpdates((flags & 128U) != 0);
    auto application = std::make_shared<Testing::TestApplication>();
    application->setCanOpenURL("lindenStoreQRWPT", (flags & 64U) != 0);
    application->setKeyWindow(
        std::make_shared<Testing::TestWindow>(Testing::TestViewController::plain()));
    Platform::setApplication(application);

    NorvAnalytics::handleEventResponse(context, data, response, std::nullopt);

    // The one rule an answer can be checked against whatever its body: a first send that was
    // answered with anything but 200 is kept, and nothing else is.
    const long code = response ? response->statusCode : 0;
    const bool kept = data && code != 200 && !context.isSavedEvent;
    if (Event::savedEvents().size() != (kept ? 1U : 0U)) {
        std::abort();
    }
    if (auto alert = controller.alertController(); alert && alert->isOnScreen()) {
        alert->tapActionAtIndex((flags & 32U) != 0 ? 0 : 7);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Platform::setLogSink([](const std::string&) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    std::string body(reinterpret_cast<const char*>(data) + 2, size - 2);
    MainQueue::main().sync([&] { handle(data, std::move(body)); });
    return 0;
}
