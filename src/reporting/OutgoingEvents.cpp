#include "reporting/OutgoingEvents.h"

#include <NorvAnalytic/Platform.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <utility>

#include "platform/Diagnostics.h"
#include "reporting/AnswerBatch.h"

namespace NorvAnalytic {

namespace {

// A host's call or the main queue hands over at most this many waiting events; the rest is
// left to the completions, so neither thread works off a backlog.
constexpr std::size_t kMostSendsPerCall = 4;
constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

}  // namespace

// An event in the client. Its place in the window is freed once: by its completion, or, when a
// client destroys the completion without calling it, when the last copy goes.
class OutgoingEvents::HandedOver {
public:
    explicit HandedOver(SentEvent sent) : event(std::move(sent)) {}
    ~HandedOver() {
        if (!completed.exchange(true)) {
            OutgoingEvents& outgoing = shared();
            outgoing.requestEnded(false);
            outgoing.pump(kNoLimit);
        }
    }
    HandedOver(const HandedOver&) = delete;
    HandedOver& operator=(const HandedOver&) = delete;

    SentEvent event;
    std::atomic<bool> completed{false};
};

// The completion handed to the client. It holds one pointer: the record, its ticket inside.
class OutgoingEvents::Delivery {
public:
    explicit Delivery(std::shared_ptr<HandedOver> handed) : handed_(std::move(handed)) {}

    void operator()(std::optional<std::string> data, std::optional<HttpResponse> response,
                    std::optional<std::string> error) noexcept {
        std::shared_ptr<HandedOver> handed = std::move(handed_);
        // A client that calls a copy of the completion again is not heard twice.
        if (!handed || handed->completed.exchange(true)) {
            return;
        }
        OutgoingEvents& outgoing = shared();
        bool forMainQueue = true;
        try {
            // Most answers end here (delivered, nobody reads them), without waking the main
            // queue; its state is read under its lock, so this is safe on any thread.
            forMainQueue = !answerChangesNothing(handed->event, data, response);
        } catch (...) {
            // Out of memory while looking: the main queue decides.
        }
        outgoing.requestEnded(forMainQueue);
        if (forMainQueue) {
            const SentEvent* event = &handed->event;
            try {
                // Answers change shared state, so they are handled one by one on the main queue.
                AnswerBatch::add({std::shared_ptr<const SentEvent>(std::move(handed), event),
                                  std::move(data), response, std::move(error)});
            } catch (...) {
                // Out of memory: this one answer is dropped.
                outgoing.answersHandled(1);
            }
        }
        handed.reset();
        outgoing.pump(kNoLimit);
    }

private:
    std::shared_ptr<HandedOver> handed_;
};

OutgoingEvents& OutgoingEvents::shared() {
    // Never destroyed: completions may still run while the process exits.
    static auto* instance = new OutgoingEvents;
    return *instance;
}

void OutgoingEvents::submit(SentEvent event) {
    std::string burst;
    {
        std::lock_guard lock(mutex_);
        waitingBytes_ += event.bytes();
        waiting_.push_back(std::move(event));
        burst = dropOverLimitsLocked();
    }
    if (!burst.empty() && Diagnostics::isOn()) {
        Diagnostics::report(DiagnosticLevel::Warning, burst);
    }
    pump(kMostSendsPerCall);
}

void OutgoingEvents::answersHandled(std::size_t count) {
    {
        std::lock_guard lock(mutex_);
        unhandled_ -= count;
    }
    pump(kMostSendsPerCall);
}

void OutgoingEvents::setLimits(std::size_t maxEvents, std::size_t maxBytes) {
    std::string burst;
    {
        std::lock_guard lock(mutex_);
        maxEvents_ = std::max<std::size_t>(maxEvents, 1);
        maxBytes_ = maxBytes;
        burst = dropOverLimitsLocked();
    }
    if (!burst.empty() && Diagnostics::isOn()) {
        Diagnostics::report(DiagnosticLevel::Warning, burst);
    }
}

std::uint64_t OutgoingEvents::droppedCount() const {
    std::lock_guard lock(mutex_);
    return dropped_;
}

std::string OutgoingEvents::dropOverLimitsLocked() {
    bool droppedNow = false;
    while (!waiting_.empty() && (waiting_.size() > maxEvents_ || waitingBytes_ > maxBytes_)) {
        waitingBytes_ -= waiting_.front().bytes();
        waiting_.pop_front();
        ++dropped_;
        droppedNow = true;
    }
    if (!droppedNow || dropping_) {
        return {};
    }
    // Said once per burst: drops go on silently until an event is handed to the client again.
    dropping_ = true;
    return "Events waiting to be sent reached the limit (" + std::to_string(maxEvents_) +
           " events, " + std::to_string(maxBytes_) +
           " bytes): the oldest waiting events are being dropped (" + std::to_string(dropped_) +
           " dropped so far)";
}

void OutgoingEvents::pump(std::size_t mostSends) noexcept {
    std::unique_lock lock(mutex_);
    if (pumping_) {
        return;
    }
    pumping_ = true;
    for (std::size_t sends = 0;
         !waiting_.empty() && inClient_ < kWindow && unhandled_ < kWindow; ++sends) {
        // Whatever is left, a request still out will come back to.
        if (sends >= mostSends && (inClient_ > 0 || unhandled_ > 0)) {
            break;
        }
        waitingBytes_ -= waiting_.front().bytes();
        SentEvent event = std::move(waiting_.front());
        waiting_.pop_front();
        ++inClient_;
        dropping_ = false;
        lock.unlock();
        handOver(std::move(event));
        lock.lock();
    }
    pumping_ = false;
}

void OutgoingEvents::handOver(SentEvent event) noexcept {
    std::shared_ptr<HandedOver> handed;
    try {
        handed = std::make_shared<HandedOver>(std::move(event));
    } catch (...) {
        // Out of memory: this one event is dropped.
        requestEnded(false);
        return;
    }
    try {
        const SentEvent& sent = handed->event;
        HttpRequest request{"POST", sent.facts().url, sent.body()};
        Platform::httpClient()->send(std::move(request), Delivery(std::move(handed)));
    } catch (...) {
        // Out of memory: this one event is dropped; its record frees its place as it goes.
    }
}

void OutgoingEvents::requestEnded(bool answerQueued) {
    std::lock_guard lock(mutex_);
    --inClient_;
    if (answerQueued) {
        ++unhandled_;
    }
}

}  // namespace NorvAnalytic
