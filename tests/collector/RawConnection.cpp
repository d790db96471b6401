#include "RawConnection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace NorvAnalytic::Collector {

RawConnection::RawConnection(int port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (socket_ < 0 ||
        ::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(socket_);
        throw std::runtime_error("cannot connect to 127.0.0.1:" + std::to_string(port));
    }
}

RawConnection::~RawConnection() { ::close(socket_); }

bool RawConnection::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

void RawConnection::shutdownWrite() { ::shutdown(socket_, SHUT_WR); }

bool RawConnection::heardBack() const {
    pollfd readable{socket_, POLLIN, 0};
    return ::poll(&readable, 1, 0) > 0;
}

std::string RawConnection::receiveAll(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string received;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd readable{socket_, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) {
            return received;
        }
        char slice[16 * 1024];
        const ssize_t count = ::recv(socket_, slice, sizeof slice, 0);
        if (count <= 0) {
            return received;
        }
        received.append(slice, static_cast<std::size_t>(count));
    }
}

}  // namespace NorvAnalytic::Collector
