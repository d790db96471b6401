#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytic.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/URL.h>

#include <utility>

#include "platform/Diagnostics.h"
#include "events/CollectionUrl.h"
#include "facade/CollectionConsent.h"
#include "facade/ControllerState.h"
#include "facade/EventDelivery.h"
#include "facade/ResendTimers.h"
#include "events/EventCatalogue.h"
#include "delivery/EventsInFlight.h"

extern "C" {
const double NorvAnalyticVersionNumber = 1.0;
const unsigned char NorvAnalyticVersionString[] =
    "@(#)PROGRAM:NorvAnalytic  PROJECT:NorvAnalytic-1\n";
}

namespace NorvAnalytic {

namespace {

std::string collectionUrl(bool secure) {
    return CollectionUrl::build(ControllerState::locked([](const ControllerState& state) {
                                    return state.collectionServerHost;
                                }),
                                secure);
}

}  // namespace

NorvAnalytics& NorvAnalytics::sharedController() {
    // Made once, never destroyed: answers and timers may still reach it while the host exits.
    static NorvAnalytics* controller = new NorvAnalytics;
    return *controller;
}

NorvAnalytics& NorvAnalytics::initWithKey(const Text& key) {
    NorvAnalytics& controller = sharedController();
    controller.setKey(key);
    controller.setUrlString(collectionUrl(true));
    // Without consent the keychain is left alone: the UUID is made with the first event.
    if (CollectionConsent::allowed()) {
        setUUID();
    }
    controller.setIsEnabled(true);
    checkUpdates(false);
    if (CollectionConsent::allowed()) {
        EventDelivery::outbox().recover();
    }
    // Every start adds a timer and leaves the earlier ones running: each start means one more
    // resend per second, which the server side has always seen.
    controller.setTimer(ResendTimers::start());
    return controller;
}

void NorvAnalytics::setSecureUrl(bool secure) {
    sharedController().setUrlString(collectionUrl(secure));
}

bool NorvAnalytics::setCollectionServerHost(const std::string& host) {
    if (const auto refusal = CollectionUrl::hostRefusal(host)) {
        if (Diagnostics::isOn()) {
            const std::string kept = ControllerState::locked(
                [](const ControllerState& state) { return state.collectionServerHost; });
            Diagnostics::report(DiagnosticLevel::Warning, "Collection server host \"" + host +
                                                              "\" refused: " + *refusal +
                                                              ". It stays \"" + kept + "\".");
        }
        return false;
    }
    ControllerState::locked([&](ControllerState& state) { state.collectionServerHost = host; });
    return true;
}

bool NorvAnalytics::flush(std::chrono::milliseconds timeout) {
    // Answers are handled on the main queue: waiting on its thread could only time out.
    if (MainQueue::main().isCurrent()) {
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    if (!EventsInFlight::waitForEarlier(timeout)) {
        return false;
    }
    // What was said about those events reaches the sink before the host looks at it.
    Diagnostics::waitUntilDelivered(deadline);
    return true;
}

void NorvAnalytics::setLogLevel(std::int32_t logLevel) {
    ControllerState::locked([&](ControllerState& state) { state.logLevel = logLevel; });
}

void NorvAnalytics::checkUpdates(bool checkUpdates) {
    ControllerState::locked([&](ControllerState& state) { state.checkUpdates = checkUpdates; });
}

void NorvAnalytics::print(const std::string& message) {
    Platform::log("NorvAnalytic Log :\n " + message);
}

Text NorvAnalytics::setTypeId(std::int32_t index) { return EventCatalogue::typeId(index); }

std::string NorvAnalytics::getTypeName(const Text& typeId) {
    return EventCatalogue::typeName(typeId);
}

ControllerState& ControllerState::shared() {
    // Never destroyed, like the controller whose properties it holds.
    static auto* state = new ControllerState;
    return *state;
}

Text NorvAnalytics::key() const {
    return ControllerState::locked([](const ControllerState& state) { return state.key; });
}

void NorvAnalytics::setKey(const Text& key) {
    ControllerState::locked([&](ControllerState& state) {
        state.key = key;
        state.updateDestination();
    });
}

Text NorvAnalytics::urlString() const {
    return ControllerState::locked([](const ControllerState& state) { return state.urlString; });
}

void NorvAnalytics::setUrlString(const Text& urlString) {
    ControllerState::locked([&](ControllerState& state) {
        state.urlString = urlString;
        state.updateDestination();
    });
    if (urlString && Diagnostics::isOn()) {
        const std::optional<URL> url = URL::URLWithString(*urlString);
        if (!url || (url->scheme() != "https" && url->scheme() != "http")) {
            Diagnostics::report(DiagnosticLevel::Error,
                                "Collection URL \"" + *urlString +
                                    "\" is not an http:// or https:// URL: no event will be "
                                    "delivered to it.");
        }
    }
}

bool NorvAnalytics::isEnabled() const {
    return ControllerState::locked([](const ControllerState& state) { return state.isEnabled; });
}

void NorvAnalytics::setIsEnabled(bool isEnabled) {
    ControllerState::locked([&](ControllerState& state) { state.isEnabled = isEnabled; });
}

bool NorvAnalytics::checkUpdates() const {
    return ControllerState::locked([](const ControllerState& state) { return state.checkUpdates; });
}

std::int64_t NorvAnalytics::logLevel() const {
    return ControllerState::locked([](const ControllerState& state) { return state.logLevel; });
}

std::shared_ptr<Timer> NorvAnalytics::timer() const {
    return ControllerState::locked([](const ControllerState& state) { return state.timer; });
}

void NorvAnalytics::setTimer(std::shared_ptr<Timer> timer) {
    ControllerState::locked([&](ControllerState& state) { state.timer = std::move(timer); });
}

std::shared_ptr<AlertController> NorvAnalytics::alertController() const {
    return ControllerState::locked(
        [](const ControllerState& state) { return state.alertController; });
}

void NorvAnalytics::setAlertController(std::shared_ptr<AlertController> alertController) {
    ControllerState::locked(
        [&](ControllerState& state) { state.alertController = std::move(alertController); });
}

}  // namespace NorvAnalytic
