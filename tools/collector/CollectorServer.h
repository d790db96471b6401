#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "BoundedServer.h"
#include "CollectorStore.h"
#include "ControlRequests.h"
#include "LiveStreams.h"

namespace NorvAnalytic::Collector {

// The development collection server: stores every event posted to "/api/v3/saveEvent" and
// answers it, steering the SDK as configured. "/control/steer", "/control/refuse" and
// "/control/state" change and show that configuration while it runs; "/" is a page that shows
// events as they arrive and steers, fed by "/api/events", "/api/counts", "/api/rate" and the
// live "/api/stream"; "/api/export" downloads what the filters show. Only the SDK's endpoint
// answers requests from other web origins. An event with an Idempotency-Key is stored once:
// a request that repeats it is answered as the first was. Threads are kept for the SDK's
// events, so they are answered however many pages watch and however slow other clients are.
class CollectorServer {
public:
    // Threads kept for the SDK's events; and for the page's requests, beside its live streams.
    static constexpr std::size_t kSdkThreads = 16;
    static constexpr std::size_t kPageThreads = 16;
    // Form pairs one event may hold.
    static constexpr std::size_t kMaxPairs = 256;
    // Bytes a token must have at least.
    static constexpr std::size_t kMinTokenLength = 16;

    // With a token, control requests must carry it ("Authorization: Bearer <token>").
    explicit CollectorServer(CollectorStore& store, Steering steering = {},
                             std::optional<std::string> token = std::nullopt);
    ~CollectorServer();
    CollectorServer(const CollectorServer&) = delete;
    CollectorServer& operator=(const CollectorServer&) = delete;

    // Binds to host and port (0 picks a free one), serves on threads of its own and returns
    // the port. Throws when the address cannot be bound, and for an address beyond loopback
    // without a token: anyone who reaches it could otherwise steer every client.
    int start(const std::string& host, int port);
    // Stops serving and waits for the server's threads.
    void stop();

    Steering steering() const;
    void setSteering(Steering steering);
    Refusal refusal() const;
    // Answers the next `count` events with `status` and `body` (a JSON object when absent).
    // Throws std::invalid_argument for a status or count out of range.
    void refuse(int status, int count, std::optional<std::string> body = std::nullopt);

    // Whether the collector listening on this address is reachable from loopback alone.
    static bool isLoopback(const std::string& host);
    // Throws std::invalid_argument when the text cannot serve as a token.
    static void checkToken(const std::string& token);

private:
    void route();
    // A control request: `apply` checks and applies its body and gives the answer's JSON, or
    // throws std::invalid_argument with the reason, which is answered 400.
    void routeControl(const char* path, std::function<std::string(const std::string& body)> apply);
    void saveEvent(const httplib::Request& request, httplib::Response& response,
                   const httplib::ContentReader& reader);
    // The status and body an event is answered with; stores it unless it repeats one.
    std::pair<int, std::string> answer(const std::string& body,
                                       const std::optional<std::string>& key);
    // The body of a request, or nothing when it was answered 413 or 400 for it.
    std::optional<std::string> bodyOf(const httplib::ContentReader& reader,
                                      httplib::Response& response);
    httplib::Server::HandlerResponse guard(const httplib::Request& request,
                                           httplib::Response& response) const;
    void stream(const httplib::Request& request, httplib::Response& response);
    // The steering, the refusal and the answer the next app-open event gets, as JSON.
    std::string stateJson() const;

    CollectorStore& store_;
    const std::optional<std::string> token_;
    BoundedServer server_;
    bool loopbackOnly_ = true;
    std::string listenHost_;
    mutable std::mutex mutex_;
    Steering steering_;
    Refusal refusal_;
    // Held from looking up an event's key to storing it, so a key is stored once.
    std::mutex saving_;
    LiveStreams streams_;
};

}  // namespace NorvAnalytic::Collector
