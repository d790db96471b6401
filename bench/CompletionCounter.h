#pragma once

#include <NorvAnalytic/HttpClient.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

// Wraps the HTTP client the SDK sends through and counts finished requests. Counting is one
// atomic increment and the reader polls, so counting wakes no thread on the delivery path.
class CompletionCounter final : public NorvAnalytic::HttpClient {
public:
    explicit CompletionCounter(std::shared_ptr<NorvAnalytic::HttpClient> inner)
        : inner_(std::move(inner)) {}

    void send(NorvAnalytic::HttpRequest request, Completion completion) override {
        sent_.fetch_add(1, std::memory_order_relaxed);
        inner_->send(std::move(request),
                     [this, completion = std::move(completion)](
                         std::optional<std::string> data,
                         std::optional<NorvAnalytic::HttpResponse> response,
                         std::optional<std::string> error) {
                         if (!response || response->statusCode != 200) {
                             notDelivered_.fetch_add(1, std::memory_order_relaxed);
                         }
                         completion(std::move(data), response, std::move(error));
                         completed_.fetch_add(1, std::memory_order_release);
                     });
    }

    // Waits until every request sent so far has completed; false after the timeout.
    bool waitForAll(std::chrono::steady_clock::duration timeout) const {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        const std::size_t target = sent_.load(std::memory_order_relaxed);
        while (completed_.load(std::memory_order_acquire) < target) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    // Requests answered with a status other than 200, or not answered at all, so far.
    std::size_t notDelivered() const { return notDelivered_.load(std::memory_order_relaxed); }

private:
    std::shared_ptr<NorvAnalytic::HttpClient> inner_;
    std::atomic<std::size_t> sent_{0};
    std::atomic<std::size_t> completed_{0};
    std::atomic<std::size_t> notDelivered_{0};
};
