#include "BoundedServer.h"

#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <optional>
#include <stdexcept>
#include <system_error>

#include "ConnectionStream.h"
#include "platform/SdkThread.h"

namespace NorvAnalytic::Collector {

namespace {

// Thrown from the set-up of a request whose announced body has not all arrived: the
// connection waits in the reception until it has, and the request is parsed again then.
struct AwaitBody {
    std::size_t bytesNeeded;
};

bool comesInChunks(const httplib::Request& request) {
    return strcasecmp(request.get_header_value("Transfer-Encoding").c_str(), "chunked") == 0;
}

bool mayCarryBodyWithoutLength(const httplib::Request& request) {
    return request.method == "POST" || request.method == "PUT" || request.method == "PATCH";
}

}  // namespace

struct BoundedServer::Served {
    bool other = false;
    bool busy = false;
    bool tooLarge = false;
    // Where the request's body ends among the bytes the stream reads; unknown for a body
    // without a length, which leaves the connection unfit for another request.
    std::optional<std::size_t> bodyEnd;
};

thread_local BoundedServer::Served* BoundedServer::served_ = nullptr;

BoundedServer::BoundedServer(Limits limits, std::function<bool(const httplib::Request&)> reserved)
    : limits_(limits),
      reserved_(std::move(reserved)),
      http_([this](int socket) { reception_.add(socket); }),
      reception_(
          limits.reception,
          [this](std::unique_ptr<Connection> connection) { dispatch(std::move(connection)); }),
      stopEvent_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (stopEvent_ < 0) {
        throw std::system_error(errno, std::generic_category(), "norv-collector stop event");
    }
    http_.set_payload_max_length(limits_.maxBodyBytes);
    // Without it every answer waits for the client's delayed acknowledgement.
    http_.set_tcp_nodelay(true);
    // httplib's default also sets SO_REUSEPORT, which would let a second server share the
    // port silently; a restart only needs SO_REUSEADDR.
    http_.set_socket_options([this](int socket) {
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        listenSocket_ = socket;
    });
    http_.set_pre_routing_handler(
        [this](const httplib::Request& request, httplib::Response& response) {
            if (served_ != nullptr && served_->busy) {
                response.status = 503;
                response.set_header("Retry-After", "1");
                response.set_content(R"({"error":"busy: every thread for such requests is taken"})",
                                     "application/json");
                return httplib::Server::HandlerResponse::Handled;
            }
            return preRouting_ ? preRouting_(request, response)
                               : httplib::Server::HandlerResponse::Unhandled;
        });
    // A client that waits to be asked for its body is told at once that it is too large.
    http_.set_expect_100_continue_handler([this](const httplib::Request&,
                                                 httplib::Response& response) {
        if (served_ != nullptr && served_->tooLarge) {
            response.status = 413;
            response.set_content(R"({"error":")" + tooLargeReason() + R"("})", "application/json");
            return 413;
        }
        return 100;
    });
}

BoundedServer::~BoundedServer() {
    stop();
    ::close(stopEvent_);
}

void BoundedServer::setPreRoutingHandler(httplib::Server::HandlerWithResponse handler) {
    preRouting_ = std::move(handler);
}

int BoundedServer::start(const std::string& host, int port) {
    const int bound =
        port == 0 ? http_.bind_to_any_port(host) : (http_.bind_to_port(host, port) ? port : -1);
    if (bound <= 0) {
        throw std::runtime_error("cannot listen on " + host + ":" + std::to_string(port));
    }
    // httplib listens with a backlog of 5, which drops connections when many arrive at once;
    // listening again on the bound socket raises it.
    ::listen(listenSocket_, 256);
    reception_.start();
    for (std::size_t index = 0; index < limits_.reservedThreads + limits_.otherThreads; ++index) {
        threads_.push_back(startSdkThread("norv-serve", [this] { work(); }));
    }
    listener_ = startSdkThread("norv-listen", [this] { http_.listen_after_bind(); });
    // stop() only reaches a server that is already running.
    while (!http_.is_running()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return bound;
}

void BoundedServer::stop() {
    if (!listener_.joinable()) {
        return;
    }
    http_.stop();
    listener_.join();
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(stopEvent_, &one, sizeof one);
    reception_.stop();
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        queue_.clear();
    }
    queued_.notify_all();
    for (std::thread& thread : threads_) {
        thread.join();
    }
    threads_.clear();
}

BoundedServer::BodyRead BoundedServer::readBody(const httplib::ContentReader& reader,
                                                std::string& body) {
    bool tooLarge = served_ != nullptr && served_->tooLarge;
    const bool read = !tooLarge && reader([&](const char* data, std::size_t length) {
        if (body.size() + length > limits_.maxBodyBytes) {
            tooLarge = true;
            ++tooLarge_;
            return false;
        }
        body.append(data, length);
        return true;
    });
    return tooLarge ? BodyRead::TooLarge : (read ? BodyRead::Complete : BodyRead::Broken);
}

std::string BoundedServer::tooLargeReason() const {
    return "a body holds at most " + std::to_string(limits_.maxBodyBytes) + " bytes";
}

BoundedServer::Counters BoundedServer::counters() const {
    return {reception_.timedOut() + timedOut_, reception_.evicted(), busy_, tooLarge_};
}

void BoundedServer::dispatch(std::unique_ptr<Connection> connection) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            return;
        }
        if (queue_.size() >= limits_.maxQueued) {
            ++busy_;
            return;
        }
        queue_.push_back(std::move(connection));
    }
    queued_.notify_one();
}

void BoundedServer::work() {
    while (true) {
        std::unique_ptr<Connection> connection;
        {
            std::unique_lock lock(mutex_);
            queued_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_) {
                return;
            }
            connection = std::move(queue_.front());
            queue_.pop_front();
        }
        try {
            serve(std::move(connection));
        } catch (const std::exception&) {
            // Out of memory for one connection, which is closed; the thread serves the next.
        }
    }
}

void BoundedServer::serve(std::unique_ptr<Connection> connection) {
    if (connection->requestStarted == Connection::Clock::time_point{}) {
        connection->requestStarted = Connection::Clock::now();
    }
    ConnectionStream stream(*connection, stopEvent_,
                            connection->requestStarted + limits_.reception.requestDeadline,
                            limits_.writeTimeout);
    Served served;
    served_ = &served;
    bool answered = false;
    bool closed = false;
    try {
        answered = http_.serveOne(
            stream, closed, [&](httplib::Request& request) { setUp(request, stream, served); });
    } catch (const AwaitBody& await) {
        served_ = nullptr;
        connection->waiting = Connection::Waiting::Body;
        connection->bytesNeeded = await.bytesNeeded;
        reception_.wait(std::move(connection));
        return;
    } catch (const std::exception&) {
        // A stream's source that failed: the connection ends, as for a write that failed.
    }
    served_ = nullptr;
    if (stream.pastDeadline()) {
        ++timedOut_;
    }
    if (served.other) {
        std::lock_guard lock(mutex_);
        --others_;
    }
    if (!answered) {
        return;
    }
    if (!served.bodyEnd || stream.bytesRead() < *served.bodyEnd) {
        connection->waiting = Connection::Waiting::Drain;
        connection->buffer.clear();
    } else if (closed) {
        return;
    } else {
        stream.keepUnread();
        connection->waiting = Connection::Waiting::Head;
        connection->requestStarted = {};
    }
    reception_.wait(std::move(connection));
}

void BoundedServer::setUp(httplib::Request& request, ConnectionStream& stream, Served& served) {
    const bool chunks = comesInChunks(request);
    bool bodyHere = !chunks;
    if (!chunks && request.has_header("Content-Length")) {
        const std::uint64_t length = request.get_header_value<std::uint64_t>("Content-Length");
        if (length > limits_.maxBodyBytes) {
            // httplib answers 413 for it; nothing of it is read.
            served.tooLarge = true;
            stream.endReads();
            ++tooLarge_;
        } else {
            served.bodyEnd = stream.bytesRead() + length;
            if (stream.unread() < length) {
                if (stream.readAheadOnly() &&
                    request.get_header_value("Expect") != "100-continue") {
                    throw AwaitBody{stream.bytesRead() + length};
                }
                bodyHere = false;
            }
        }
    } else if (!chunks && !mayCarryBodyWithoutLength(request)) {
        served.bodyEnd = stream.bytesRead();
    } else {
        bodyHere = false;
    }
    if (bodyHere && reserved_(request)) {
        return;
    }
    std::lock_guard lock(mutex_);
    if (others_ < limits_.otherThreads) {
        ++others_;
        served.other = true;
    } else {
        served.busy = true;
        ++busy_;
    }
}

}  // namespace NorvAnalytic::Collector
