#pragma once

#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <string>

namespace NorvAnalytic::Collector {

// One client's connection to the collector: its socket (closed with it) and the bytes read
// ahead of the request being served. It is owned by one thread at a time: the reception
// while it waits for bytes, a server thread while a request is served.
struct Connection {
    using Clock = std::chrono::steady_clock;

    // What the reception waits for before a server thread may have the connection.
    enum class Waiting {
        // A whole request head: a server thread then never waits for a slow client's head.
        Head,
        // At least `bytesNeeded` bytes: the head a server thread read and the body it announced.
        Body,
        // Nothing: an answer was sent without reading the body, which is read and thrown
        // away until the client stops, so that the client reads the answer rather than a reset.
        Drain,
    };

    explicit Connection(int socket) : socket(socket) {}
    ~Connection() { ::close(socket); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const int socket;
    std::string buffer;
    Waiting waiting = Waiting::Head;
    std::size_t bytesNeeded = 0;
    std::size_t bytesDrained = 0;
    // When the current request's first byte arrived; unset while the connection is idle.
    Clock::time_point requestStarted{};
    // The reception closes a connection still waiting then.
    Clock::time_point deadline{};
    // When it began to wait: the reception, when full, closes the one that has waited longest.
    Clock::time_point waitingSince{};
};

}  // namespace NorvAnalytic::Collector
