#include "Reception.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string_view>
#include <system_error>

#include "platform/SdkThread.h"

namespace NorvAnalytic::Collector {

namespace {

// The blank line that ends a request's head; httplib parses the head itself.
constexpr std::string_view kHeadEnd = "\r\n\r\n";
constexpr std::size_t kReadSlice = 16 * 1024;

void signal(int event) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(event, &one, sizeof one);
}

}  // namespace

Reception::Reception(Limits limits, std::function<void(std::unique_ptr<Connection>)> ready)
    : limits_(limits),
      ready_(std::move(ready)),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = wake_;
    if (epoll_ < 0 || wake_ < 0 || ::epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &event) != 0) {
        const int error = errno;
        ::close(epoll_);
        ::close(wake_);
        throw std::system_error(error, std::generic_category(), "norv-collector reception");
    }
}

Reception::~Reception() {
    stop();
    ::close(epoll_);
    ::close(wake_);
}

void Reception::start() {
    thread_ = startSdkThread("norv-reception", [this] { run(); });
}

void Reception::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    signal(wake_);
    if (thread_.joinable()) {
        thread_.join();
    }
    waiting_.clear();
    std::lock_guard lock(mutex_);
    arrived_.clear();
}

void Reception::add(int socket) {
    std::unique_ptr<Connection> connection;
    try {
        connection = std::make_unique<Connection>(socket);
    } catch (const std::bad_alloc&) {
        ::close(socket);
        throw;
    }
    wait(std::move(connection));
}

void Reception::wait(std::unique_ptr<Connection> connection) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            return;
        }
        arrived_.push_back(std::move(connection));
    }
    signal(wake_);
}

void Reception::run() {
    epoll_event events[64];
    while (true) {
        const int count = ::epoll_wait(epoll_, events, std::size(events),
                                       timeoutMillis(Connection::Clock::now()));
        const auto now = Connection::Clock::now();
        std::vector<std::unique_ptr<Connection>> arrived;
        {
            std::lock_guard lock(mutex_);
            if (stopping_) {
                return;
            }
            arrived.swap(arrived_);
        }
        std::uint64_t signals = 0;
        [[maybe_unused]] const ssize_t read = ::read(wake_, &signals, sizeof signals);
        for (auto& connection : arrived) {
            take(std::move(connection), now);
        }
        for (int index = 0; index < count; ++index) {
            const auto found = waiting_.find(events[index].data.fd);
            if (found == waiting_.end()) {
                continue;
            }
            const Received received = receive(*found->second, now);
            if (received == Received::Enough) {
                handOn(found);
            } else if (received == Received::End) {
                ::epoll_ctl(epoll_, EPOLL_CTL_DEL, found->first, nullptr);
                waiting_.erase(found);
            }
        }
        expire(now);
    }
}

void Reception::take(std::unique_ptr<Connection> connection, Connection::Clock::time_point now) {
    Connection& waiting = *connection;
    waiting.waitingSince = now;
    switch (waiting.waiting) {
        case Connection::Waiting::Head:
            if (waiting.buffer.empty()) {
                waiting.requestStarted = {};
                waiting.deadline = now + limits_.idleTimeout;
            } else {
                if (waiting.requestStarted == Connection::Clock::time_point{}) {
                    waiting.requestStarted = now;
                }
                waiting.deadline = waiting.requestStarted + limits_.requestDeadline;
            }
            break;
        case Connection::Waiting::Body:
            waiting.deadline = waiting.requestStarted + limits_.requestDeadline;
            break;
        case Connection::Waiting::Drain:
            // The answer is complete: the client sees its end, then its unread body goes.
            ::shutdown(waiting.socket, SHUT_WR);
            waiting.bytesDrained = 0;
            waiting.deadline = now + limits_.drainTime;
            break;
    }
    if (holdsWhatItWaitsFor(waiting, 0)) {
        ready_(std::move(connection));
        return;
    }
    if (waiting.waiting == Connection::Waiting::Head &&
        waiting.buffer.size() >= limits_.maxHeadBytes) {
        return;
    }
    if (waiting_.size() >= limits_.maxWaiting) {
        const auto oldest = std::min_element(
            waiting_.begin(), waiting_.end(), [](const auto& one, const auto& other) {
                return one.second->waitingSince < other.second->waitingSince;
            });
        ::epoll_ctl(epoll_, EPOLL_CTL_DEL, oldest->first, nullptr);
        waiting_.erase(oldest);
        ++evicted_;
    }
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP;
    event.data.fd = waiting.socket;
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, waiting.socket, &event) == 0) {
        waiting_.emplace(waiting.socket, std::move(connection));
    }
}

Reception::Received Reception::receive(Connection& connection, Connection::Clock::time_point now) {
    char slice[kReadSlice];
    while (true) {
        std::size_t room = sizeof slice;
        if (connection.waiting == Connection::Waiting::Head) {
            if (connection.buffer.size() >= limits_.maxHeadBytes) {
                return Received::End;
            }
            room = std::min(room, limits_.maxHeadBytes - connection.buffer.size());
        } else if (connection.waiting == Connection::Waiting::Body) {
            room = std::min(room, connection.bytesNeeded - connection.buffer.size());
        }
        const ssize_t received = ::recv(connection.socket, slice, room, MSG_DONTWAIT);
        if (received == 0) {
            return Received::End;
        }
        if (received < 0) {
            return errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK ? Received::Some
                                                                             : Received::End;
        }
        if (connection.waiting == Connection::Waiting::Drain) {
            connection.bytesDrained += static_cast<std::size_t>(received);
            if (connection.bytesDrained > limits_.maxDrainBytes) {
                return Received::End;
            }
            continue;
        }
        if (connection.requestStarted == Connection::Clock::time_point{}) {
            connection.requestStarted = now;
            connection.deadline = now + limits_.requestDeadline;
        }
        // Only the new bytes, and the three before them, can complete the blank line.
        const std::size_t from = connection.buffer.size() < 3 ? 0 : connection.buffer.size() - 3;
        connection.buffer.append(slice, static_cast<std::size_t>(received));
        if (holdsWhatItWaitsFor(connection, from)) {
            return Received::Enough;
        }
    }
}

bool Reception::holdsWhatItWaitsFor(const Connection& connection, std::size_t from) const {
    switch (connection.waiting) {
        case Connection::Waiting::Head:
            return connection.buffer.find(kHeadEnd, from) != std::string::npos;
        case Connection::Waiting::Body:
            return connection.buffer.size() >= connection.bytesNeeded;
        case Connection::Waiting::Drain:
            break;
    }
    return false;
}

void Reception::handOn(Connections::iterator found) {
    ::epoll_ctl(epoll_, EPOLL_CTL_DEL, found->first, nullptr);
    std::unique_ptr<Connection> connection = std::move(found->second);
    waiting_.erase(found);
    ready_(std::move(connection));
}

void Reception::expire(Connection::Clock::time_point now) {
    for (auto entry = waiting_.begin(); entry != waiting_.end();) {
        const Connection& connection = *entry->second;
        if (connection.deadline > now) {
            ++entry;
            continue;
        }
        if (connection.waiting != Connection::Waiting::Drain &&
            connection.requestStarted != Connection::Clock::time_point{}) {
            ++timedOut_;
        }
        ::epoll_ctl(epoll_, EPOLL_CTL_DEL, entry->first, nullptr);
        entry = waiting_.erase(entry);
    }
}

int Reception::timeoutMillis(Connection::Clock::time_point now) const {
    if (waiting_.empty()) {
        return -1;
    }
    auto earliest = Connection::Clock::time_point::max();
    for (const auto& [socket, connection] : waiting_) {
        earliest = std::min(earliest, connection->deadline);
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(earliest - now).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
}

}  // namespace NorvAnalytic::Collector
