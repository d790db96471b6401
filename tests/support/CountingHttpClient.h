#pragma once

#include <NorvAnalytic/HttpClient.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace NorvAnalytic::Testing {

// Wraps a real client and counts finished requests, so a test knows when every answer has
// been handed to the main queue.
class CountingHttpClient final : public HttpClient {
public:
    explicit CountingHttpClient(std::shared_ptr<HttpClient> inner) : inner_(std::move(inner)) {}

    void send(HttpRequest request, Completion completion) override {
        {
            std::lock_guard lock(mutex_);
            ++sent_;
        }
        inner_->send(std::move(request),
                     [this, completion = std::move(completion)](
                         std::optional<std::string> data, std::optional<HttpResponse> response,
                         std::optional<std::string> error) {
                         completion(std::move(data), response, std::move(error));
                         {
                             std::lock_guard lock(mutex_);
                             ++completed_;
                         }
                         changed_.notify_all();
                     });
    }

    std::size_t sent() const {
        std::lock_guard lock(mutex_);
        return sent_;
    }

    // Waits until every request sent so far has completed.
    bool waitForAll(std::chrono::milliseconds timeout = std::chrono::seconds(20)) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return completed_ >= sent_; });
    }

private:
    std::shared_ptr<HttpClient> inner_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::size_t sent_ = 0;
    std::size_t completed_ = 0;
};

}  // namespace NorvAnalytic::Testing
