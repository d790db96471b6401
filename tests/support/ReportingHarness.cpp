#include "support/ReportingHarness.h"

#include <NorvAnalytic/CurlHttpClient.h>
#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/Platform.h>

#include <gtest/gtest.h>

#include "platform/LinuxDevice.h"
#include "reporting/DeviceIdentity.h"

namespace NorvAnalytic::Testing {

namespace {

std::shared_ptr<CurlHttpClient> sharedCurlClient() {
    // One client for the whole test binary, as a host has one.
    static auto* client = new std::shared_ptr<CurlHttpClient>(std::make_shared<CurlHttpClient>());
    return *client;
}

}  // namespace

ReportingHarness::ReportingHarness()
    : device(std::make_shared<FixedDevice>("iPhone9,3", "17.1", 0.75F)),
      clock(std::make_shared<ManualClock>()),
      http(std::make_shared<CountingHttpClient>(sharedCurlClient())) {
    setMainQueueClock(clock);
    Platform::setHttpClient(http);
    Platform::setDevice(device);
    MainQueue::main().sync([] {
        Event::savedEvents().clear();
        NorvAnalytics::sharedController().setAlertController(nullptr);
    });
    NorvAnalytics::setLogLevel(0);
    NorvAnalytics::initWithKey(std::string("test-key"));
    NorvAnalytics::setSecureUrl(false);
    NorvAnalytics::sharedController().setUrlString(server.url());
}

ReportingHarness::~ReportingHarness() {
    settle();
    // Answers, resends and their log lines belong to the main queue.
    EXPECT_EQ(log.linesOffMainQueue(), 0U);
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
    Platform::setDevice(std::make_shared<LinuxDevice>());
}

void ReportingHarness::settle() {
    EXPECT_TRUE(http->waitForAll());
    MainQueue::main().sync([] {});
}

void ReportingHarness::tick() {
    clock->advance(std::chrono::seconds(1));
    MainQueue::main().sync([] {});
    settle();
}

std::string ReportingHarness::deviceUUID() const {
    return Keychain::itemForKey(DeviceIdentity::deviceUUIDKey(), DeviceIdentity::service(),
                                nullptr)
        .value_or("");
}

}  // namespace NorvAnalytic::Testing
