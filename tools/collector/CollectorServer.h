#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "CollectorStore.h"
#include "LiveStreams.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace NorvAnalytic::Collector {

// A newer app version named in the steering block.
struct VersionOffer {
    std::string no;
    std::string downloadUrl;
};

// What the answers to app-open events tell the SDK.
struct Steering {
    bool analyticsEnabled = true;
    std::optional<VersionOffer> forceVersion;
    std::optional<VersionOffer> offerVersion;
    // Answers app-open events with "payload": null, which leaves the SDK's collection as it is.
    bool nullPayload = false;
};

// The next `remaining` events are answered with this status and body instead of being accepted.
struct Refusal {
    int status = 500;
    int remaining = 0;
    std::optional<std::string> body;
};

// The development collection server: stores every event posted to "/api/v3/saveEvent" and
// answers it, steering the SDK as configured. "/control/steer", "/control/refuse" and
// "/control/state" change and show that configuration while it runs; "/" is a page that shows
// events as they arrive and steers, fed by "/api/events", "/api/counts", "/api/rate" and the
// live "/api/stream"; "/api/export" downloads what the filters show. Only the SDK's endpoint
// answers requests from other web origins. Live pages have threads of their own, so the SDK's
// events are answered however many pages watch.
class CollectorServer {
public:
    // Threads kept for everything but the live pages' streams.
    static constexpr std::size_t kRequestThreads = 16;

    explicit CollectorServer(CollectorStore& store, Steering steering = {});
    ~CollectorServer();
    CollectorServer(const CollectorServer&) = delete;
    CollectorServer& operator=(const CollectorServer&) = delete;

    // Binds to host and port (0 picks a free one), serves on a thread of its own and returns
    // the port. Throws when the address cannot be bound.
    int start(const std::string& host, int port);
    // Stops serving and waits for the server's threads.
    void stop();

    Steering steering() const;
    void setSteering(Steering steering);
    Refusal refusal() const;
    // Answers the next `count` events with `status` and `body` (a JSON object when absent).
    void refuse(int status, int count, std::optional<std::string> body = std::nullopt);

private:
    void route();
    void stream(const httplib::Request& request, httplib::Response& response);
    // The steering, the refusal and the answer the next app-open event gets, as JSON.
    std::string stateJson() const;

    CollectorStore& store_;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    std::string listenHost_;
    int listenSocket_ = -1;
    mutable std::mutex mutex_;
    Steering steering_;
    Refusal refusal_;
    LiveStreams streams_;
};

}  // namespace NorvAnalytic::Collector
