#pragma once

#include <NorvAnalytic/Application.h>
#include <NorvAnalytic/Device.h>
#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/HttpClient.h>
#include <NorvAnalytic/KeychainBackend.h>
#include <NorvAnalytic/ReachabilityService.h>

#include <functional>
#include <memory>
#include <string>

namespace NorvAnalytic {

// The services the SDK runs on. Each has a Linux default; a host (or a test) may replace any
// of them, normally before initWithKey. Every accessor is safe from any thread.
class NORVANALYTIC_EXPORT Platform {
public:
    using LogSink = std::function<void(const std::string& message)>;

    static std::shared_ptr<HttpClient> httpClient();
    static void setHttpClient(std::shared_ptr<HttpClient> client);

    static std::shared_ptr<Device> device();
    static void setDevice(std::shared_ptr<Device> device);

    static std::shared_ptr<KeychainBackend> keychainBackend();
    static void setKeychainBackend(std::shared_ptr<KeychainBackend> backend);

    static std::shared_ptr<ReachabilityService> reachabilityService();
    static void setReachabilityService(std::shared_ptr<ReachabilityService> service);

    static std::shared_ptr<Application> application();
    static void setApplication(std::shared_ptr<Application> application);

    // Receives every console line's message text; nullptr restores the decorated stderr line.
    static void setLogSink(LogSink sink);
    // Writes one console line.
    static void log(const std::string& message);
};

}  // namespace NorvAnalytic
