#pragma once

#include <httplib.h>

#include <chrono>
#include <cstddef>

#include "Connection.h"

namespace NorvAnalytic::Collector {

// The bytes of one request for httplib to parse, and the way to answer it: the connection's
// read-ahead first, then its socket. Every wait ends at the request's deadline (reads), after
// `writeTimeout` without progress (writes), or as soon as `stopEvent` is readable.
class ConnectionStream final : public httplib::Stream {
public:
    ConnectionStream(Connection& connection, int stopEvent, Connection::Clock::time_point deadline,
                     std::chrono::milliseconds writeTimeout);

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char* data, std::size_t size) override;
    ssize_t write(const char* data, std::size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    int socket() const override;

    // Bytes the request has read, and those of the read-ahead still unread.
    std::size_t bytesRead() const { return bytesRead_; }
    std::size_t unread() const { return connection_.buffer.size() - consumed_; }
    // True while every byte the request read came from the read-ahead, which then still holds
    // them all from its first: the request can be parsed again from there.
    bool readAheadOnly() const { return readAheadOnly_; }
    // From now on a read past the read-ahead fails at once: a body too large is not read.
    void endReads() { readsEnded_ = true; }
    // Drops what the request read, keeping what came after it.
    void keepUnread();
    // Whether a read ended because the request's deadline passed.
    bool pastDeadline() const { return pastDeadline_; }

private:
    // Waits for `events` on the socket until `until`; false on time-out or stop.
    bool wait(short events, Connection::Clock::time_point until) const;

    Connection& connection_;
    const int stopEvent_;
    const Connection::Clock::time_point deadline_;
    const std::chrono::milliseconds writeTimeout_;
    std::size_t consumed_ = 0;
    std::size_t bytesRead_ = 0;
    bool readAheadOnly_ = true;
    bool readsEnded_ = false;
    bool pastDeadline_ = false;
};

}  // namespace NorvAnalytic::Collector
