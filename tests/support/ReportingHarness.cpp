#include "support/ReportingHarness.h"

#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/Platform.h>
#include "reporting/DeviceIdentity.h"

namespace NorvAnalytic::Testing {

ReportingHarness::ReportingHarness() {
    setMainQueueClock(clock);
    Platform::setHttpClient(http);
    Platform::setDevice(device);
    Platform::setKeychainBackend(keychain);
    Platform::setReachabilityService(reachability);
    MainQueue::main().sync([] {
        Event::savedEvents().clear();
        NorvAnalytics::sharedController().setAlertController(nullptr);
    });
    NorvAnalytics::setLogLevel(0);
    restart();
}

ReportingHarness::~ReportingHarness() {
    // Stop this test's timers so the next test starts with none.
    MainQueue::main().sync([] {
        auto& controller = NorvAnalytics::sharedController();
        controller.setIsEnabled(false);
        if (auto timer = controller.timer()) {
            timer->invalidate();
        }
        Event::savedEvents().clear();
    });
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

void ReportingHarness::tick() {
    clock->advance(std::chrono::seconds(1));
    MainQueue::main().sync([] {});
}

std::string ReportingHarness::deviceUUID() const {
    return Keychain::itemForKey(DeviceIdentity::deviceUUIDKey(), DeviceIdentity::service(), nullptr)
        .value_or("");
}

DeviceFacts ReportingHarness::facts(bool appOpen, const Text& userId) const {
    DeviceFacts facts{.key = std::string(kKey),
                      .deviceUUID = deviceUUID(),
                      .sdkVersion = "1.7.4",
                      .deviceModel = "iPhone 7",
                      .systemVersion = "17.1"};
    if (appOpen) {
        facts.batteryLevel = 0.75F;
        facts.userId = userId;
    }
    return facts;
}

std::size_t ReportingHarness::savedCount() const {
    std::size_t count = 0;
    MainQueue::main().sync([&] { count = Event::savedEvents().size(); });
    return count;
}

}  // namespace NorvAnalytic::Testing
