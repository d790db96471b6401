#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/HttpClient.h>

#include <memory>
#include <string>

namespace NorvAnalytic {

// The default HTTP client: libcurl on one network thread, connections reused (at most 6 per
// host), TLS verified, redirects followed, 60 s idle time-out per request.
class NORVANALYTIC_EXPORT CurlHttpClient : public HttpClient {
public:
    CurlHttpClient();
    ~CurlHttpClient() override;

    void send(HttpRequest request, Completion completion) override;

    // Sends requests for "host:port" to another "address:port" instead (tests, deployments).
    void connectTo(const std::string& hostAndPort, const std::string& addressAndPort);
    // Verifies TLS peers against this CA bundle instead of the system's.
    void setCaInfo(const std::string& path);

    CurlHttpClient(const CurlHttpClient&) = delete;
    CurlHttpClient& operator=(const CurlHttpClient&) = delete;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace NorvAnalytic
