#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Connection.h"
#include "HandOffServer.h"
#include "Reception.h"

namespace NorvAnalytic::Collector {

class ConnectionStream;

// An HTTP server whose every request is bounded, so that no client can hold what another
// needs. A server thread gets a connection only once the reception holds its whole head and
// any body it announced with a length; reads end at the request's deadline and at stop();
// a body over the limit is answered 413 unread. Threads are kept for the requests `reserved`
// names: every other request, and any request whose body comes without a length, is served
// only while fewer than `otherThreads` such requests are, and answered 503 otherwise.
class BoundedServer {
public:
    struct Limits {
        std::size_t reservedThreads = 16;
        std::size_t otherThreads = 16;
        std::size_t maxBodyBytes = 64 * 1024;
        // Connections whole and waiting for a server thread; beyond, they are closed.
        std::size_t maxQueued = 256;
        std::chrono::milliseconds writeTimeout{5000};
        Reception::Limits reception;
    };

    // What the bounds turned away, since the start.
    struct Counters {
        std::uint64_t timedOut = 0;
        std::uint64_t evicted = 0;
        std::uint64_t busy = 0;
        std::uint64_t tooLarge = 0;
    };

    enum class BodyRead { Complete, TooLarge, Broken };

    BoundedServer(Limits limits, std::function<bool(const httplib::Request&)> reserved);
    ~BoundedServer();
    BoundedServer(const BoundedServer&) = delete;
    BoundedServer& operator=(const BoundedServer&) = delete;

    // Where handlers are added, before start().
    httplib::Server& http() { return http_; }
    // Runs before each request that was let in, as httplib's pre-routing handler would.
    void setPreRoutingHandler(httplib::Server::HandlerWithResponse handler);

    // Binds to host and port (0 picks a free one), serves on threads of its own and returns
    // the port. Throws when the address cannot be bound.
    int start(const std::string& host, int port);
    // Stops listening, closes every connection and waits for the threads. A handler still
    // running when it is called must end by itself (a stream, when its source closes).
    void stop();

    // Reads the body of the request being served into `body`, up to the body limit.
    BodyRead readBody(const httplib::ContentReader& reader, std::string& body);

    // Why a body over the limit was refused.
    std::string tooLargeReason() const;
    Counters counters() const;
    const Limits& limits() const { return limits_; }

private:
    struct Served;

    void dispatch(std::unique_ptr<Connection> connection);
    void work();
    void serve(std::unique_ptr<Connection> connection);
    void setUp(httplib::Request& request, ConnectionStream& stream, Served& served);

    const Limits limits_;
    const std::function<bool(const httplib::Request&)> reserved_;
    httplib::Server::HandlerWithResponse preRouting_;
    HandOffServer http_;
    Reception reception_;
    const int stopEvent_;
    int listenSocket_ = -1;
    std::thread listener_;
    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::condition_variable queued_;
    std::deque<std::unique_ptr<Connection>> queue_;
    bool stopping_ = false;
    // Requests being served that are not reserved ones.
    std::size_t others_ = 0;
    std::atomic<std::uint64_t> timedOut_{0};
    std::atomic<std::uint64_t> busy_{0};
    std::atomic<std::uint64_t> tooLarge_{0};
    // The request the calling server thread serves, for the handlers httplib calls.
    static thread_local Served* served_;
};

}  // namespace NorvAnalytic::Collector
