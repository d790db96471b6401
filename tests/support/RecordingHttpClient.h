#pragma once

#include <NorvAnalytic/HttpClient.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace NorvAnalytic::Testing {

// An HTTP client that sends nothing: it records each request and completes it only when the
// test says, so reporting tests run without a server and in a known order.
class RecordingHttpClient final : public HttpClient {
public:
    void send(HttpRequest request, Completion completion) override;

    // Runs before each of the calls below reads or answers: events reach a client on the SDK's
    // own thread, and a test that knows the SDK waits here until they have arrived.
    std::function<void()> beforeReading = [] {};

    // Every request sent since the last clear(), oldest first, and their bodies.
    std::vector<HttpRequest> requests() const;
    std::vector<std::string> bodies() const;
    void clear();

    // Once set, each request is answered (200, empty) before send() returns, as a stopped
    // client completes inside send().
    std::atomic<bool> answerInsideSend = false;

    // Answers every request still open, oldest first, and waits until the main queue has
    // handled the answers. Returns how many it answered; events that were waiting for room in
    // the client may arrive meanwhile and stay open.
    std::size_t answerAll(long status, std::string body) {
        return completeAll(body, HttpResponse{status});
    }
    // Fails every request still open without an answer, as a transport error does.
    std::size_t failAll() { return completeAll(std::nullopt, std::nullopt); }
    // Destroys the completion of every request still open without calling it; how many. The
    // completions go once the lock is released: one may send again.
    std::size_t dropAll() { return takeOpen().size(); }

private:
    // The completions of every request still open, which are no longer open.
    std::vector<Completion> takeOpen();
    std::size_t completeAll(const std::optional<std::string>& data,
                            const std::optional<HttpResponse>& response);

    mutable std::mutex mutex_;
    std::vector<HttpRequest> requests_;
    std::vector<Completion> open_;
};

}  // namespace NorvAnalytic::Testing
