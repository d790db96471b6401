#include "support/RecordingHttpClient.h"

#include <NorvAnalytic/MainQueue.h>

#include <algorithm>
#include <utility>

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

std::vector<HttpClient::Completion> RecordingHttpClient::takeOpen() {
    beforeReading();
    std::lock_guard lock(mutex_);
    return std::exchange(open_, {});
}

std::vector<HttpRequest> RecordingHttpClient::requests() const {
    beforeReading();
    std::lock_guard lock(mutex_);
    return requests_;
}

std::vector<std::string> RecordingHttpClient::bodies() const {
    const std::vector<HttpRequest> sent = requests();
    std::vector<std::string> bodies(sent.size());
    std::ranges::transform(sent, bodies.begin(), &HttpRequest::body);
    return bodies;
}

void RecordingHttpClient::clear() {
    beforeReading();
    std::lock_guard lock(mutex_);
    requests_.clear();
}

std::size_t RecordingHttpClient::completeAll(const std::optional<std::string>& data,
                                             const std::optional<HttpResponse>& response) {
    std::vector<Completion> open = takeOpen();
    for (Completion& completion : open) {
        completion(data, response,
                   data ? std::nullopt
                        : std::optional(HttpClient::error(HttpClientErrorTransport, "failed")));
    }
    MainQueue::main().sync([] {});
    return open.size();
}

}  // namespace NorvAnalytic::Testing
