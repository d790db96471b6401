#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/HttpClient.h>

#include <cstddef>
#include <memory>
#include <string>

namespace NorvAnalytic {

// The default HTTP client: libcurl's multi interface on one network thread, "norv-http".
// HTTP/2 where the server offers it over TLS, many requests multiplexed on one connection;
// otherwise up to six kept HTTP/1.1 connections per host. TLS verified, redirects followed,
// proxies taken from http_proxy, https_proxy, all_proxy and no_proxy as curl reads them (when
// the client sends its first request: one named later is not used), 60 s without
// progress fails a request. Answers are read up to 1 MiB; a longer one arrives as empty data
// with its status. At most kMaxWaitingRequests wait for a transfer; beyond that a request's
// completion is told HttpClientErrorDropped at once.
class NORVANALYTIC_EXPORT CurlHttpClient : public HttpClient {
public:
    static constexpr std::size_t kMaxWaitingRequests = 10'000;

    CurlHttpClient();
    // Stops the network thread; what has not been answered completes as cancelled.
    ~CurlHttpClient() override;

    void send(HttpRequest request, Completion completion) override;
    // Requests not yet written to the wire are cancelled: those in the list at once, those in
    // libcurl before it writes a byte of them. Returns once none of them can go out.
    void cancelUnsent() override;

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
