#include "support/LocalHttpServer.h"

namespace NorvAnalytic::Testing {

LocalHttpServer::LocalHttpServer(int port) {
    // httplib answers form bodies over 8 KiB with 413 itself; the suites' events stay far below.
    server_.Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
        std::unique_lock lock(mutex_);
        received_.push_back({request.body, request.get_header_value("Idempotency-Key"),
                             std::chrono::steady_clock::now()});
        const Responder responder = responder_;
        lock.unlock();
        changed_.notify_all();
        const Answer answer = responder ? responder(request.path, request.body) : Answer{};
        std::this_thread::sleep_for(answer.delay);
        response.status = answer.status;
        response.set_content(answer.body, "application/json");
    });
    // Clients keep connections open; a short keep-alive lets the server stop without waiting.
    server_.set_keep_alive_timeout(1);
    // Headers and body go out in two writes; without this each answer waits for a delayed ACK.
    server_.set_tcp_nodelay(true);
    port_ = port > 0 ? (server_.bind_to_port("127.0.0.1", port) ? port : -1)
                     : server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // httplib's stop() does nothing before the accept loop runs, and offers no signal for it:
    // a server stopped before its thread got going would keep the destructor's join waiting.
    while (port_ > 0 && !server_.is_running()) {
        std::this_thread::yield();
    }
}

LocalHttpServer::~LocalHttpServer() {
    server_.stop();
    thread_.join();
}

}  // namespace NorvAnalytic::Testing
