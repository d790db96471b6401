#pragma once

#include <NorvAnalytic/HttpClient.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace NorvAnalytic::Testing {

// An HTTP client that sends nothing: it records each request and completes it only when the
// test says, so reporting tests run without a server and in a known order.
class RecordingHttpClient final : public HttpClient {
public:
    void send(HttpRequest request, Completion completion) override;

    // Every request sent since the last clear(), oldest first, and their bodies.
    std::vector<HttpRequest> requests() const;
    std::vector<std::string> bodies() const;
    void clear();
    // From now on answers each request with this status before send() returns, as a stopped
    // client does.
    void answerInsideSend(long status);

    // Answers every request still open, oldest first, and waits until the main queue has
    // handled the answers. Returns how many it answered; events that were waiting for room in
    // the client may arrive meanwhile and stay open.
    std::size_t answerAll(long status, std::string body) {
        return completeAll(body, HttpResponse{status});
    }
    // Fails every request still open without an answer, as a transport error does.
    std::size_t failAll() { return completeAll(std::nullopt, std::nullopt); }
    // Destroys the completion of every request still open without calling it.
    void dropAll();

private:
    std::size_t completeAll(const std::optional<std::string>& data,
                            const std::optional<HttpResponse>& response);

    mutable std::mutex mutex_;
    std::vector<HttpRequest> requests_;
    std::vector<Completion> open_;
    std::optional<long> answerInsideSend_;
};

}  // namespace NorvAnalytic::Testing
