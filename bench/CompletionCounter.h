#pragma once

#include <NorvAnalytic/HttpClient.h>

#include <atomic>
#include <memory>

// Wraps the HTTP client the SDK sends through and counts the requests not answered with 200.
// Counting is one atomic increment, so it wakes no thread on the delivery path.
class CompletionCounter final : public NorvAnalytic::HttpClient {
public:
    explicit CompletionCounter(std::shared_ptr<NorvAnalytic::HttpClient> inner)
        : inner_(std::move(inner)) {}

    void send(NorvAnalytic::HttpRequest request, Completion completion) override {
        inner_->send(std::move(request),
                     [this, completion = std::move(completion)](
                         std::optional<std::string> data,
                         std::optional<NorvAnalytic::HttpResponse> response,
                         std::optional<NorvAnalytic::Error> error) {
                         if (!response || response->statusCode != 200) {
                             notDelivered_.fetch_add(1, std::memory_order_relaxed);
                         }
                         completion(std::move(data), response, std::move(error));
                     });
    }

    // Requests answered with a status other than 200, or not answered at all, so far.
    std::size_t notDelivered() const { return notDelivered_.load(std::memory_order_relaxed); }

private:
    std::shared_ptr<NorvAnalytic::HttpClient> inner_;
    std::atomic<std::size_t> notDelivered_{0};
};
