#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/HttpAnswerParser.h"
#include "platform/PendingRequest.h"

namespace NorvAnalytic {

// One kept HTTP/1.1 connection that can carry several requests at once. curl opens it (name
// lookup, connect, TLS with verification) as a connect-only transfer that stays in the multi
// handle; this class then writes requests back to back and reads their answers in order. It
// carries one request at a time until a first answer shows that the server keeps it open.
class PipelinedConnection {
public:
    using Clock = std::chrono::steady_clock;
    // Whether the server answers two requests that arrive together: Running while the two
    // are out, then how it went.
    enum class Trial { None, Running, Passed, Failed, Inconclusive };

    // What servicing the connection gave: answers, failures, and requests to send again
    // elsewhere, oldest first.
    struct Results {
        std::vector<std::pair<PendingRequest, HttpAnswerParser::Answer>> answered;
        std::vector<std::pair<PendingRequest, std::string>> failed;
        std::vector<PendingRequest> again;

        bool empty() const { return answered.empty() && failed.empty() && again.empty(); }
    };

    // Takes the connect-only handle, before it is added to the multi handle.
    PipelinedConnection(CURLM* multi, CURL* easy, bool encrypted);
    ~PipelinedConnection();

    PipelinedConnection(const PipelinedConnection&) = delete;
    PipelinedConnection& operator=(const PipelinedConnection&) = delete;

    CURL* handle() const { return easy_; }
    bool isClosed() const { return state_ == State::Closed; }
    bool isOpen() const { return state_ == State::Open; }
    std::size_t load() const { return inFlight_.size(); }
    // How many more requests it takes now, when it may carry `depth` at once.
    std::size_t room(std::size_t depth) const;
    // Open, idle, and its server has kept it open after an answer.
    bool isReadyForTrial() const { return state_ == State::Open && keptOpen_ && inFlight_.empty(); }
    // The next two requests go out in one write, and no more until both are answered.
    void startTrial() {
        trial_ = Trial::Running;
        trialAnswersOk_ = true;
    }
    // How the trial ended, once; None while there is nothing new to tell.
    Trial takeTrialOutcome();
    // No new request goes here; the connection closes once its requests are answered.
    void retire() { retiring_ = true; }
    bool isRetired() const { return retiring_; }

    // Queues the request's bytes behind the earlier ones.
    void add(PendingRequest request, std::string_view head);
    // curl finished opening the connection, with this outcome.
    void opened(CURLcode result, Results& results);
    // Writes what it can and, when the socket said so, reads every answer that arrived.
    void service(bool readable, Clock::time_point now, Results& results);
    // The socket and the events to wait for; none while curl is still opening it.
    bool waitFor(curl_waitfd& wait) const;
    // Hands back everything still in flight, as failed with the reason.
    void abandon(const std::string& reason, Results& results);

private:
    enum class State { Connecting, Open, Closed };
    struct InFlight {
        PendingRequest pending;
        // Where this request's bytes begin in everything ever queued on the connection.
        std::uint64_t begin;
    };

    void flush(Results& results);
    void receive(Clock::time_point now, Results& results);
    bool handleBytes(std::string_view bytes, Results& results);
    bool deliver(HttpAnswerParser::Answer answer, Results& results);
    // Ends the connection: an answer cut short fails, requests never written or not yet
    // answered go back to be sent again (once, unless the server asked to close).
    void close(const std::string& reason, bool serverAskedToClose, Results& results);

    CURLM* multi_;
    CURL* easy_;
    bool encrypted_;
    State state_ = State::Connecting;
    curl_socket_t socket_ = CURL_SOCKET_BAD;
    bool keptOpen_ = false;
    Trial trial_ = Trial::None;
    bool trialAnswersOk_ = true;
    bool retiring_ = false;
    // Requests are appended to out_; writing_ is what is being written, left untouched until
    // it is all out, since a TLS write that must be retried needs the very same bytes.
    std::string out_;
    std::string writing_;
    std::size_t writtenOfWriting_ = 0;
    std::uint64_t queuedBytes_ = 0;
    std::uint64_t sentBytes_ = 0;
    std::deque<InFlight> inFlight_;
    HttpAnswerParser parser_;
    Clock::time_point lastProgress_ = Clock::now();
    std::array<char, CURL_ERROR_SIZE> errorBuffer_{};
};

}  // namespace NorvAnalytic
