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

// How much a diagnostics line matters.
enum class DiagnosticLevel { Debug, Info, Warning, Error };

// The services the SDK runs on. Each has a Linux default; a host (or a test) may replace any
// of them, normally before initWithKey. Every accessor is safe from any thread.
class NORVANALYTIC_EXPORT Platform {
public:
    using LogSink = std::function<void(const std::string& message)>;
    using DiagnosticsSink = std::function<void(DiagnosticLevel level, const std::string& message)>;

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

    // Receives what the console never shows: transport failures, dropped events, a store that
    // failed, a bad URL. Off (nullptr) by default. Called on a thread of the SDK's, one line at
    // a time in the order they were said, a moment after they were said, and never under a lock
    // of the SDK's, so it may call any public function; what it throws is swallowed. Returns
    // once the lines said before it reached the old sink and the old sink's last call returned
    // (at once from inside a sink). Only Debug lines carry secrets such as the app key or a
    // request body.
    static void setDiagnosticsSink(DiagnosticsSink sink);
};

}  // namespace NorvAnalytic
