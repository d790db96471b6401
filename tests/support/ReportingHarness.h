#pragma once

#include <NorvAnalytic/NorvAnalytics.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/MainQueueClock.h"
#include "platform/ManualClock.h"
#include "support/CountingHttpClient.h"
#include "support/FixedDevice.h"
#include "support/LocalHttpServer.h"
#include "support/RecordingLogSink.h"
#include "support/ScratchKeychain.h"

namespace NorvAnalytic::Testing {

// The SDK wired to real parts for one test: a local HTTP server, the curl client, a scratch
// keychain file, a recording console, a manual clock for the resend timer, and a device that
// reports itself as an iPhone 7. It starts the SDK with initWithKey and the plain URL of the
// local server.
class ReportingHarness {
public:
    ReportingHarness();
    ~ReportingHarness();
    ReportingHarness(const ReportingHarness&) = delete;
    ReportingHarness& operator=(const ReportingHarness&) = delete;

    // Waits until every event sent so far has been answered and its answer handled.
    void settle();
    // One second of the resend timer, then settle().
    void tick();
    // The device UUID stored in the scratch keychain.
    std::string deviceUUID() const;

    ScratchKeychain keychain;
    LocalHttpServer server;
    RecordingLogSink log;
    std::shared_ptr<FixedDevice> device;
    std::shared_ptr<ManualClock> clock;
    std::shared_ptr<CountingHttpClient> http;
};

}  // namespace NorvAnalytic::Testing
