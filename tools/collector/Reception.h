#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Connection.h"

namespace NorvAnalytic::Collector {

// Where connections wait while a client is slow: one thread polls them all and hands a
// connection on only once it holds what it waits for (a whole request head, a body a server
// thread announced), so a client that sends a byte every few seconds holds a socket, never a
// server thread. It closes a connection idle too long, a request not whole by its deadline,
// and, when it holds `maxWaiting`, the connection that has waited longest.
class Reception {
public:
    struct Limits {
        std::size_t maxWaiting = 448;
        std::size_t maxHeadBytes = 16 * 1024;
        std::chrono::milliseconds idleTimeout{5000};
        std::chrono::milliseconds requestDeadline{10000};
        // How long, and how much, an unread body is read and thrown away after an answer.
        std::chrono::milliseconds drainTime{2000};
        std::size_t maxDrainBytes = 8 * 1024 * 1024;
    };

    // `ready` takes each connection that holds what it waited for, on the reception's thread.
    Reception(Limits limits, std::function<void(std::unique_ptr<Connection>)> ready);
    ~Reception();
    Reception(const Reception&) = delete;
    Reception& operator=(const Reception&) = delete;

    void start();
    // Ends the thread and closes every connection waiting.
    void stop();

    // A connection just accepted.
    void add(int socket);
    // A connection back from a server thread, waiting as it says.
    void wait(std::unique_ptr<Connection> connection);

    // Requests closed because they were not whole by their deadline.
    std::uint64_t timedOut() const { return timedOut_; }
    // Connections closed to make room for a new one.
    std::uint64_t evicted() const { return evicted_; }

private:
    using Connections = std::unordered_map<int, std::unique_ptr<Connection>>;
    enum class Received { Some, Enough, End };

    void run();
    void take(std::unique_ptr<Connection> connection, Connection::Clock::time_point now);
    // Reads what the socket has: Enough once the connection holds what it waits for, End when
    // it is to be closed.
    Received receive(Connection& connection, Connection::Clock::time_point now);
    // `from`: where in the buffer new bytes may complete what it waits for.
    bool holdsWhatItWaitsFor(const Connection& connection, std::size_t from) const;
    void handOn(Connections::iterator found);
    void expire(Connection::Clock::time_point now);
    int timeoutMillis(Connection::Clock::time_point now) const;

    const Limits limits_;
    const std::function<void(std::unique_ptr<Connection>)> ready_;
    const int epoll_;
    const int wake_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Connection>> arrived_;
    bool stopping_ = false;
    // The reception thread's alone.
    Connections waiting_;
    std::atomic<std::uint64_t> timedOut_{0};
    std::atomic<std::uint64_t> evicted_{0};
    std::thread thread_;
};

}  // namespace NorvAnalytic::Collector
