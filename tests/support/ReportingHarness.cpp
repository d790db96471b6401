#include "support/ReportingHarness.h"

#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/Platform.h>

#include "delivery/Outbox.h"
#include "events/DeviceIdentity.h"
#include "events/EventTable.h"
#include "events/TextFormat.h"
#include "platform/Diagnostics.h"

namespace NorvAnalytic::Testing {

ReportingHarness::ReportingHarness() {
    setMainQueueClock(clock);
    http->beforeReading = [] { Outbox::shared().waitUntilHandedOver(); };
    Platform::setHttpClient(http);
    Platform::setDevice(device);
    Platform::setKeychainBackend(keychain);
    Platform::setReachabilityService(reachability);
    NorvAnalytics::setLogLevel(0);
    restart();
    // What earlier tests dropped is theirs: this one's flush speaks of its own events.
    NorvAnalytics::flush(std::chrono::milliseconds(0));
}

ReportingHarness::~ReportingHarness() {
    // Stop this test's timers and drop its events and alert, so the next test starts clean. The
    // client drops what it holds uncalled, as a client may: each dropped request frees its place.
    while (http->dropAll() > 0) {
    }
    MainQueue::main().sync([] {
        auto& controller = NorvAnalytics::sharedController();
        controller.setIsEnabled(false);
        if (auto timer = controller.timer()) {
            timer->invalidate();
        }
        Event::savedEvents().clear();
        controller.setAlertController(nullptr);
    });
    NorvAnalytics::setPersistentQueue(false);
    NorvAnalytics::setCollectionAllowed(true);
    setMainQueueClock(nullptr);
    Platform::setHttpClient(nullptr);
    Platform::setDevice(nullptr);
    Platform::setKeychainBackend(nullptr);
    Platform::setReachabilityService(nullptr);
}

void ReportingHarness::restart() {
    NorvAnalytics::initWithKey(std::string(kKey));
    NorvAnalytics::sharedController().setUrlString(std::string(kUrl));
}

void ReportingHarness::withoutNewTimer(const std::function<void()>& f) {
    auto& controller = NorvAnalytics::sharedController();
    const std::shared_ptr<Timer> kept = controller.timer();
    f();
    if (const auto added = controller.timer(); added && added != kept) {
        added->invalidate();
    }
    controller.setTimer(kept);
}

void ReportingHarness::tick() {
    clock->advance(std::chrono::seconds(1));
    MainQueue::main().sync([] {});
}

void ReportingHarness::waitForDiagnostics() {
    Diagnostics::waitUntilDelivered(std::chrono::steady_clock::now() + std::chrono::seconds(30));
}

std::string ReportingHarness::deviceUUID() const {
    return Keychain::itemForKey(DeviceIdentity::deviceUUIDKey(), DeviceIdentity::service(), nullptr)
        .value_or("");
}

std::string ReportingHarness::body(const ExpectedEvent& sent, bool appOpen, const Text& user) const {
    const Event event{.value = TextFormat::decimal(sent.value),
                      .eventTypeId = sent.typeId,
                      .endpoint = sent.endpoint,
                      .parameters = sent.parameters,
                      .response = sent.response,
                      .pageName = sent.pageName,
                      .player_id = sent.playerId,
                      .username = sent.username,
                      .warehouse = sent.warehouse,
                      .error = sent.error,
                      .deviceCustomName = sent.deviceCustomName,
                      .deviceName = sent.deviceName};
    // Only app-open events carry the battery (75%) and the store user id.
    return EventTable::body(EventTable::texts(event), std::string(kKey),
                            {deviceUUID(), "1.7.4", "iPhone 7", "17.1",
                             appOpen ? std::optional(0.75F) : std::nullopt,
                             appOpen ? user : std::nullopt});
}

std::size_t ReportingHarness::savedCount() const {
    std::size_t count = 0;
    MainQueue::main().sync([&] { count = Event::savedEvents().size(); });
    return count;
}

}  // namespace NorvAnalytic::Testing
