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

std::string LocalHttpServer::formValue(const std::string& body, const std::string& key) {
    const std::string pair = key + "=";
    std::size_t start = body.starts_with(pair) ? 0 : body.find("&" + pair);
    if (start == std::string::npos) {
        return {};
    }
    start += body.starts_with(pair) ? pair.size() : pair.size() + 1;
    return body.substr(start, body.find('&', start) - start);
}

std::vector<std::string> LocalHttpServer::valuesOf(const std::string& key) const {
    std::vector<std::string> values;
    for (const std::string& body : bodies()) {
        if (body.starts_with(key + "=") || body.find("&" + key + "=") != std::string::npos) {
            values.push_back(formValue(body, key));
        }
    }
    return values;
}

std::map<std::string, int> LocalHttpServer::countsOf(const std::string& key) const {
    std::map<std::string, int> counts;
    for (const std::string& value : valuesOf(key)) {
        ++counts[value];
    }
    return counts;
}

}  // namespace NorvAnalytic::Testing
