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
    explicit CountingHttpClient(std::shared_ptr<HttpClient> inner)
        : inner_(std::move(inner)), counts_(std::make_shared<Counts>()) {}

    void send(HttpRequest request, Completion completion) override {
        {
            std::lock_guard lock(counts_->mutex);
            ++counts_->sent;
        }
        // The counts outlive this client: a late answer may arrive after a test is over.
        inner_->send(std::move(request),
                     [counts = counts_, completion = std::move(completion)](
                         std::optional<std::string> data, std::optional<HttpResponse> response,
                         std::optional<std::string> error) {
                         completion(std::move(data), response, std::move(error));
                         {
                             std::lock_guard lock(counts->mutex);
                             ++counts->completed;
                         }
                         counts->changed.notify_all();
                     });
    }

    std::size_t sent() const {
        std::lock_guard lock(counts_->mutex);
        return counts_->sent;
    }

    // Waits until every request sent so far has completed.
    bool waitForAll(std::chrono::milliseconds timeout = std::chrono::seconds(60)) const {
        std::unique_lock lock(counts_->mutex);
        return counts_->changed.wait_for(lock, timeout,
                                         [&] { return counts_->completed >= counts_->sent; });
    }

private:
    struct Counts {
        std::mutex mutex;
        std::condition_variable changed;
        std::size_t sent = 0;
        std::size_t completed = 0;
    };

    std::shared_ptr<HttpClient> inner_;
    std::shared_ptr<Counts> counts_;
};

}  // namespace NorvAnalytic::Testing
