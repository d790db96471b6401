#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/HttpClient.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace NorvAnalytic {

// The default HTTP client, on one network thread: connections kept and reused (at most 6 per
// host), TLS verified, redirects followed, 60 s idle time-out per request. POSTs go over
// HTTP/1.1 connections that libcurl opens and this client then writes to itself; other
// methods, redirects and requests through a proxy go through libcurl's own transfers. Answers
// are read up to 1 MiB; a longer one arrives as empty data with its status. Requests beyond the
// connections wait in a bounded queue: when it is full the oldest waiting request is dropped,
// its completion told so with kDroppedMessage.
class NORVANALYTIC_EXPORT CurlHttpClient : public HttpClient {
public:
    // Room for a long outage of a busy host, at about 50 MB when every request waits.
    static constexpr std::size_t kDefaultMaxWaitingRequests = 100'000;
    static constexpr std::size_t kDefaultMaxWaitingBytes = 32 << 20;
    static constexpr const char* kDroppedMessage =
        "The request was dropped: too many requests were waiting for a connection";

    CurlHttpClient();
    ~CurlHttpClient() override;

    void send(HttpRequest request, Completion completion) override;

    // Sends requests for "host:port" to another "address:port" instead (tests, deployments).
    void connectTo(const std::string& hostAndPort, const std::string& addressAndPort);
    // Verifies TLS peers against this CA bundle instead of the system's.
    void setCaInfo(const std::string& path);
    // At most this many POSTs on a connection at once, written before the earlier ones are
    // answered (HTTP/1.1 pipelining): fewer system calls per event on both ends. A server gets
    // more than one only after it answered two requests that arrived together; some (cpp-httplib
    // among them) drop the second, and then get one at a time. Default 16; 1 turns it off.
    void setPipelineDepth(std::size_t requests);
    // Bounds the requests waiting for a connection, by count and by bytes of bodies.
    void setQueueLimits(std::size_t maxRequests, std::size_t maxBytes);
    // How many waiting requests were dropped because the queue was full.
    std::uint64_t droppedRequests() const;

    CurlHttpClient(const CurlHttpClient&) = delete;
    CurlHttpClient& operator=(const CurlHttpClient&) = delete;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace NorvAnalytic
