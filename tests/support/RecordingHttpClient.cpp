#include "support/RecordingHttpClient.h"

#include <NorvAnalytic/MainQueue.h>

#include <algorithm>

namespace NorvAnalytic::Testing {

void RecordingHttpClient::send(HttpRequest request, Completion completion) {
    std::unique_lock lock(mutex_);
    requests_.push_back(std::move(request));
    if (!answerInsideSend) {
        open_.push_back(std::move(completion));
        return;
    }
    lock.unlock();
    completion(std::string(), HttpResponse{200}, std::nullopt);
}

std::size_t RecordingHttpClient::dropAll() {
    // Declared first, so destroyed after the lock is released: a completion may send again.
    std::vector<Completion> open;
    beforeReading();
    std::lock_guard lock(mutex_);
    open.swap(open_);
    return open.size();
}

std::vector<HttpRequest> RecordingHttpClient::requests() const {
    beforeReading();
    std::lock_guard lock(mutex_);
    return requests_;
}

std::vector<std::string> RecordingHttpClient::bodies() const {
    beforeReading();
    std::lock_guard lock(mutex_);
    std::vector<std::string> bodies(requests_.size());
    std::ranges::transform(requests_, bodies.begin(), &HttpRequest::body);
    return bodies;
}

void RecordingHttpClient::clear() {
    beforeReading();
    std::lock_guard lock(mutex_);
    requests_.clear();
}

std::size_t RecordingHttpClient::completeAll(const std::optional<std::string>& data,
                                             const std::optional<HttpResponse>& response) {
    std::vector<Completion> open;
    beforeReading();
    {
        std::lock_guard lock(mutex_);
        open.swap(open_);
    }
    for (Completion& completion : open) {
        completion(data, response,
                   data ? std::nullopt
                        : std::optional(HttpClient::error(HttpClientErrorTransport, "failed")));
    }
    MainQueue::main().sync([] {});
    return open.size();
}

}  // namespace NorvAnalytic::Testing
