#include "platform/PipelinedConnection.h"

#include <poll.h>

#include <array>
#include <utility>

namespace NorvAnalytic {

namespace {

constexpr std::chrono::seconds kIdleTimeout(60);
// A server that dropped the second request of a trial never answers it; one that reads the
// two correctly answers both at once.
constexpr std::chrono::seconds kTrialTimeout(2);
constexpr std::size_t kReadSize = 64 << 10;

}  // namespace

PipelinedConnection::PipelinedConnection(CURLM* multi, CURL* easy, bool encrypted)
    : multi_(multi), easy_(easy), encrypted_(encrypted), parser_(kMaxAnswerBytes) {
    curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, errorBuffer_.data());
    curl_easy_setopt(easy_, CURLOPT_PRIVATE, nullptr);
}

PipelinedConnection::~PipelinedConnection() {
    curl_multi_remove_handle(multi_, easy_);
    curl_easy_cleanup(easy_);
}

std::size_t PipelinedConnection::room(std::size_t depth) const {
    if (state_ == State::Closed || retiring_) {
        return 0;
    }
    const std::size_t limit = keptOpen_ ? depth : 1;
    return inFlight_.size() < limit ? limit - inFlight_.size() : 0;
}

void PipelinedConnection::add(PendingRequest request, std::string_view head) {
    if (inFlight_.empty()) {
        lastProgress_ = Clock::now();
    }
    out_.append(head);
    out_.append(request.request.body);
    inFlight_.push_back({std::move(request), queuedBytes_});
    queuedBytes_ += head.size() + inFlight_.back().pending.request.body.size();
}

void PipelinedConnection::opened(CURLcode result, Results& results) {
    if (result == CURLE_OK &&
        curl_easy_getinfo(easy_, CURLINFO_ACTIVESOCKET, &socket_) == CURLE_OK &&
        socket_ != CURL_SOCKET_BAD) {
        state_ = State::Open;
        lastProgress_ = Clock::now();
        flush(results);
        return;
    }
    abandon(errorBuffer_[0] != '\0' ? std::string(errorBuffer_.data())
                                    : std::string(curl_easy_strerror(result)),
            results);
}

bool PipelinedConnection::waitFor(curl_waitfd& wait) const {
    if (state_ != State::Open) {
        return false;
    }
    wait.fd = socket_;
    const bool unsent = writtenOfWriting_ < writing_.size() || !out_.empty();
    wait.events = CURL_WAIT_POLLIN | (unsent ? CURL_WAIT_POLLOUT : 0);
    wait.revents = 0;
    return true;
}

void PipelinedConnection::service(bool readable, Clock::time_point now, Results& results) {
    if (state_ != State::Open) {
        return;
    }
    flush(results);
    if (readable && state_ == State::Open) {
        receive(now, results);
    }
    if (state_ == State::Open && trial_ == Trial::Running && inFlight_.size() == 1 &&
        now - lastProgress_ > kTrialTimeout) {
        close("The server left the second of two requests unanswered", false, results);
    }
    if (state_ == State::Open && !inFlight_.empty() && now - lastProgress_ > kIdleTimeout) {
        abandon("Operation timed out: no answer for 60 seconds", results);
    }
}

PipelinedConnection::Trial PipelinedConnection::takeTrialOutcome() {
    if (trial_ == Trial::None || trial_ == Trial::Running) {
        return Trial::None;
    }
    return std::exchange(trial_, Trial::None);
}

void PipelinedConnection::flush(Results& results) {
    while (true) {
        if (writtenOfWriting_ == writing_.size()) {
            if (out_.empty()) {
                return;
            }
            writing_.clear();
            writing_.swap(out_);
            writtenOfWriting_ = 0;
        }
        std::size_t sent = 0;
        const CURLcode result = curl_easy_send(easy_, writing_.data() + writtenOfWriting_,
                                               writing_.size() - writtenOfWriting_, &sent);
        if (result == CURLE_AGAIN) {
            return;
        }
        if (result != CURLE_OK) {
            close(curl_easy_strerror(result), false, results);
            return;
        }
        writtenOfWriting_ += sent;
        sentBytes_ += sent;
        lastProgress_ = Clock::now();
    }
}

void PipelinedConnection::receive(Clock::time_point now, Results& results) {
    // One buffer for every connection: only the network thread reads.
    static thread_local std::array<char, kReadSize> buffer;
    while (true) {
        std::size_t got = 0;
        const CURLcode result = curl_easy_recv(easy_, buffer.data(), buffer.size(), &got);
        if (result == CURLE_AGAIN) {
            return;
        }
        if (result != CURLE_OK) {
            close(curl_easy_strerror(result), false, results);
            return;
        }
        if (got == 0) {
            if (parser_.endOfStream() == HttpAnswerParser::Step::Answered &&
                !deliver(parser_.takeAnswer(), results)) {
                return;
            }
            close(
                parser_.failure().empty() ? "The server closed the connection" : parser_.failure(),
                false, results);
            return;
        }
        lastProgress_ = now;
        if (!handleBytes(std::string_view(buffer.data(), got), results)) {
            return;
        }
        // Over TLS a short read can leave decrypted bytes inside the TLS library, which no
        // poll reports: read until curl says there is nothing more.
        if (!encrypted_ && got < buffer.size()) {
            return;
        }
    }
}

bool PipelinedConnection::handleBytes(std::string_view bytes, Results& results) {
    while (!bytes.empty()) {
        std::size_t used = 0;
        const HttpAnswerParser::Step step = parser_.read(bytes, used);
        bytes.remove_prefix(used);
        if (step == HttpAnswerParser::Step::Failed) {
            close(parser_.failure(), false, results);
            return false;
        }
        if (step == HttpAnswerParser::Step::Answered && !deliver(parser_.takeAnswer(), results)) {
            return false;
        }
    }
    return true;
}

bool PipelinedConnection::deliver(HttpAnswerParser::Answer answer, Results& results) {
    if (inFlight_.empty()) {
        close("The server answered a request that was never sent", false, results);
        return false;
    }
    const bool keepAlive = answer.keepAlive;
    const bool tooLong = answer.bodyTooLong;
    // A server that cut the second request apart answers its rest with an error.
    trialAnswersOk_ = trialAnswersOk_ && answer.status < 400;
    results.answered.emplace_back(std::move(inFlight_.front().pending), std::move(answer));
    inFlight_.pop_front();
    if (trial_ == Trial::Running && inFlight_.empty()) {
        trial_ = trialAnswersOk_ ? Trial::Passed : Trial::Inconclusive;
    }
    if (keepAlive) {
        keptOpen_ = true;
        return true;
    }
    // Behind an answer cut short the server may have read later requests: they count as sent.
    close("The server closed the connection", !tooLong, results);
    return false;
}

void PipelinedConnection::abandon(const std::string& reason, Results& results) {
    for (InFlight& request : inFlight_) {
        results.failed.emplace_back(std::move(request.pending), reason);
    }
    inFlight_.clear();
    state_ = State::Closed;
}

void PipelinedConnection::close(const std::string& reason, bool serverAskedToClose,
                                Results& results) {
    if (trial_ == Trial::Running) {
        trial_ = serverAskedToClose ? Trial::Inconclusive : Trial::Failed;
    }
    if (!inFlight_.empty() && !parser_.isBetweenAnswers()) {
        results.failed.emplace_back(std::move(inFlight_.front().pending), reason);
        inFlight_.pop_front();
    }
    for (InFlight& request : inFlight_) {
        const bool written = request.begin < sentBytes_;
        if (!written || serverAskedToClose || !request.pending.resent) {
            request.pending.resent = request.pending.resent || (written && !serverAskedToClose);
            results.again.push_back(std::move(request.pending));
        } else {
            results.failed.emplace_back(std::move(request.pending), reason);
        }
    }
    inFlight_.clear();
    state_ = State::Closed;
}

}  // namespace NorvAnalytic
