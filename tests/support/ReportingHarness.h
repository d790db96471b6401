#pragma once

#include <NorvAnalytic/NorvAnalytics.h>

#include <functional>
#include <memory>
#include <string>

#include "mainqueue/MainQueueClock.h"
#include "mainqueue/ManualClock.h"
#include "support/FakeKeychainBackend.h"
#include "support/FakeReachabilityService.h"
#include "support/FixedDevice.h"
#include "support/RecordingHttpClient.h"
#include "support/RecordingLogSink.h"

namespace NorvAnalytic::Testing {

// An event as a test expects it on the wire: its type, its value as a number and its texts, in
// the order of the submission's arguments.
struct ExpectedEvent {
    Text typeId = std::nullopt;
    float value = 0.0F;
    Text endpoint = std::nullopt;
    Text parameters = std::nullopt;
    Text response = std::nullopt;
    Text pageName = std::nullopt;
    Text playerId = std::nullopt;
    Text username = std::nullopt;
    Text warehouse = std::nullopt;
    Text error = std::nullopt;
    Text deviceCustomName = std::nullopt;
    Text deviceName = std::nullopt;
};

// The SDK started for one test on stand-ins: a recording HTTP client, an in-memory keychain,
// a reachable network, a recording console, a manual clock for the resend timer, and a device
// that reports itself as an iPhone 7 at 75% battery.
class ReportingHarness {
public:
    static constexpr const char* kKey = "test-key";
    static constexpr const char* kUrl = "http://collector.test/api/v3/saveEvent";

    ReportingHarness();
    ~ReportingHarness();
    ReportingHarness(const ReportingHarness&) = delete;
    ReportingHarness& operator=(const ReportingHarness&) = delete;

    // initWithKey again, pointed at kUrl; the earlier timers keep running.
    void restart();
    // Runs f, which calls initWithKey, and takes back the timer that added: a timer left behind
    // ticks on after the test, against the next one's stand-ins.
    static void withoutNewTimer(const std::function<void()>& f);
    // One second of the resend timer; returns once the main queue has run its ticks.
    void tick();
    std::string deviceUUID() const;
    // The body this device sends for an event with these slots.
    std::string body(const ExpectedEvent& sent, bool appOpen = false,
                     const Text& userId = std::nullopt) const;
    std::size_t savedCount() const;
    // Returns once what was said on the diagnostics sink so far has reached it.
    static void waitForDiagnostics();

    RecordingLogSink log;
    std::shared_ptr<RecordingHttpClient> http = std::make_shared<RecordingHttpClient>();
    std::shared_ptr<FakeKeychainBackend> keychain = std::make_shared<FakeKeychainBackend>();
    std::shared_ptr<FakeReachabilityService> reachability =
        std::make_shared<FakeReachabilityService>();
    std::shared_ptr<FixedDevice> device = std::make_shared<FixedDevice>("iPhone9,3", "17.1", 0.75F);
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
};

}  // namespace NorvAnalytic::Testing
