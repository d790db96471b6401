#include "ConnectionStream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace NorvAnalytic::Collector {

namespace {

// Reads from the socket a slice at a time; the read-ahead never holds more than one slice
// beyond the request's head.
constexpr std::size_t kReadSlice = 16 * 1024;

void addressOf(const sockaddr_storage& address, std::string& ip, int& port) {
    char text[INET6_ADDRSTRLEN] = "";
    if (address.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
        inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
        port = ntohs(v6.sin6_port);
    } else {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
        port = ntohs(v4.sin_port);
    }
    ip = text;
}

}  // namespace

ConnectionStream::ConnectionStream(Connection& connection, int stopEvent,
                                   Connection::Clock::time_point deadline,
                                   std::chrono::milliseconds writeTimeout)
    : connection_(connection),
      stopEvent_(stopEvent),
      deadline_(deadline),
      writeTimeout_(writeTimeout) {}

bool ConnectionStream::wait(short events, Connection::Clock::time_point until) const {
    while (true) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(until - Connection::Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd fds[] = {{connection_.socket, events, 0}, {stopEvent_, POLLIN, 0}};
        const int ready =
            ::poll(fds, 2, static_cast<int>(std::min<std::int64_t>(left.count(), INT_MAX)));
        if (ready < 0 && errno != EINTR) {
            return false;
        }
        if (fds[1].revents != 0) {
            return false;
        }
        if (fds[0].revents != 0) {
            return true;
        }
    }
}

bool ConnectionStream::is_readable() const {
    return unread() > 0 || (!readsEnded_ && wait(POLLIN, deadline_));
}

bool ConnectionStream::is_writable() const {
    return wait(POLLOUT, Connection::Clock::now() + writeTimeout_);
}

ssize_t ConnectionStream::read(char* data, std::size_t size) {
    if (unread() == 0) {
        if (readsEnded_) {
            return -1;
        }
        connection_.buffer.clear();
        consumed_ = 0;
        readAheadOnly_ = false;
        char slice[kReadSlice];
        while (true) {
            const ssize_t received = ::recv(connection_.socket, slice, sizeof slice, MSG_DONTWAIT);
            if (received >= 0) {
                if (received == 0) {
                    return 0;
                }
                connection_.buffer.assign(slice, static_cast<std::size_t>(received));
                break;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                return -1;
            }
            if (!wait(POLLIN, deadline_)) {
                pastDeadline_ = Connection::Clock::now() >= deadline_;
                return -1;
            }
        }
    }
    const std::size_t count = std::min(size, unread());
    std::memcpy(data, connection_.buffer.data() + consumed_, count);
    consumed_ += count;
    bytesRead_ += count;
    return static_cast<ssize_t>(count);
}

ssize_t ConnectionStream::write(const char* data, std::size_t size) {
    while (true) {
        const ssize_t sent = ::send(connection_.socket, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) {
            return sent;
        }
        if ((errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) || !is_writable()) {
            return -1;
        }
    }
}

void ConnectionStream::get_remote_ip_and_port(std::string& ip, int& port) const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getpeername(connection_.socket, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        addressOf(address, ip, port);
    }
}

void ConnectionStream::get_local_ip_and_port(std::string& ip, int& port) const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getsockname(connection_.socket, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        addressOf(address, ip, port);
    }
}

int ConnectionStream::socket() const { return connection_.socket; }

void ConnectionStream::keepUnread() {
    connection_.buffer.erase(0, consumed_);
    consumed_ = 0;
}

}  // namespace NorvAnalytic::Collector
