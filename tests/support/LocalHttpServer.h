#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace NorvAnalytic::Testing {

// A real HTTP server on 127.0.0.1 and an ephemeral port (or the one asked for), recording
// every POST body it gets.
// Answers come from a replaceable responder (default: 200 with a small JSON object).
class LocalHttpServer {
public:
    struct Answer {
        int status = 200;
        std::string body = R"({"message":"ok","code":200,"payload":null})";
        std::chrono::milliseconds delay{0};
    };
    using Responder = std::function<Answer(const std::string& path, const std::string& body)>;
    // A POST as it arrived.
    struct Received {
        std::string body;
        // Its Idempotency-Key header, empty without one.
        std::string key;
        std::chrono::steady_clock::time_point at;
    };

    explicit LocalHttpServer(int port = 0);
    ~LocalHttpServer();

    int port() const { return port_; }
    std::string url() const {
        return "http://127.0.0.1:" + std::to_string(port_) + "/api/v3/saveEvent";
    }
    void setResponder(Responder responder) {
        std::lock_guard lock(mutex_);
        responder_ = std::move(responder);
    }
    // Every POST received, and its body, oldest first.
    std::vector<Received> received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }
    std::vector<std::string> bodies() const {
        std::lock_guard lock(mutex_);
        std::vector<std::string> bodies;
        for (const Received& each : received_) {
            bodies.push_back(each.body);
        }
        return bodies;
    }
    // The value of key in each body that has it, in arrival order; and how often each came.
    std::vector<std::string> valuesOf(const std::string& key) const;
    std::map<std::string, int> countsOf(const std::string& key) const;
    // The value of key in a form body, empty where it has none.
    static std::string formValue(const std::string& body, const std::string& key);
    bool waitForCount(std::size_t count,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return received_.size() >= count; });
    }

private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Received> received_;
    Responder responder_;
};

}  // namespace NorvAnalytic::Testing
