// The one place that knows the Linux default of every port. It sits above the service folders,
// which reach each other only through Platform and the public interfaces.
#include <NorvAnalytic/Platform.h>

#include <NorvAnalytic/CurlHttpClient.h>

#include <atomic>

#include "keychain/FileKeychainBackend.h"
#include "platform/ConsoleLog.h"
#include "platform/Diagnostics.h"
#include "ui/HeadlessApplication.h"
#include "platform/LinuxDevice.h"
#include "reachability/NetlinkReachabilityService.h"

namespace NorvAnalytic {

namespace {

// One replaceable service: the host's choice if it made one, else the Linux default, made on
// first use. Never destroyed, so work still in flight at exit finds it alive.
template <typename Service>
class Slot {
public:
    explicit Slot(std::shared_ptr<Service> (*makeDefault)()) : makeDefault_(makeDefault) {}

    std::shared_ptr<Service> get() {
        if (auto current = service_.load()) {
            return current;
        }
        std::shared_ptr<Service> made = makeDefault_();
        std::shared_ptr<Service> expected;
        if (service_.compare_exchange_strong(expected, made)) {
            return made;
        }
        return expected;
    }

    void set(std::shared_ptr<Service> service) { service_.store(std::move(service)); }

private:
    std::shared_ptr<Service> (*makeDefault_)();
    std::atomic<std::shared_ptr<Service>> service_;
};

template <typename Service>
Slot<Service>& slot(std::shared_ptr<Service> (*makeDefault)()) {
    static auto* instance = new Slot<Service>(makeDefault);
    return *instance;
}

std::shared_ptr<HttpClient> defaultHttpClient() { return std::make_shared<CurlHttpClient>(); }
std::shared_ptr<Device> defaultDevice() { return std::make_shared<LinuxDevice>(); }
std::shared_ptr<KeychainBackend> defaultKeychainBackend() {
    return std::make_shared<FileKeychainBackend>();
}
std::shared_ptr<ReachabilityService> defaultReachabilityService() {
    return std::make_shared<NetlinkReachabilityService>();
}
std::shared_ptr<Application> defaultApplication() {
    return std::make_shared<HeadlessApplication>();
}

}  // namespace

std::shared_ptr<HttpClient> Platform::httpClient() { return slot(defaultHttpClient).get(); }
void Platform::setHttpClient(std::shared_ptr<HttpClient> client) {
    slot(defaultHttpClient).set(std::move(client));
}

std::shared_ptr<Device> Platform::device() { return slot(defaultDevice).get(); }
void Platform::setDevice(std::shared_ptr<Device> device) {
    slot(defaultDevice).set(std::move(device));
}

std::shared_ptr<KeychainBackend> Platform::keychainBackend() {
    return slot(defaultKeychainBackend).get();
}
void Platform::setKeychainBackend(std::shared_ptr<KeychainBackend> backend) {
    slot(defaultKeychainBackend).set(std::move(backend));
}

std::shared_ptr<ReachabilityService> Platform::reachabilityService() {
    return slot(defaultReachabilityService).get();
}
void Platform::setReachabilityService(std::shared_ptr<ReachabilityService> service) {
    slot(defaultReachabilityService).set(std::move(service));
}

std::shared_ptr<Application> Platform::application() {
    return slot(defaultApplication).get();
}
void Platform::setApplication(std::shared_ptr<Application> application) {
    slot(defaultApplication).set(std::move(application));
}

void Platform::setLogSink(LogSink sink) { ConsoleLog::setSink(std::move(sink)); }

void Platform::log(const std::string& message) { ConsoleLog::write(message); }

void Platform::setDiagnosticsSink(DiagnosticsSink sink) { Diagnostics::setSink(std::move(sink)); }

}  // namespace NorvAnalytic
