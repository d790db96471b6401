#include "reporting/OutgoingEvents.h"

#include <NorvAnalytic/Platform.h>

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Diagnostics.h"
#include "reporting/AnswerBatch.h"

namespace NorvAnalytic {

namespace {

// A thread's buffer for packing texts is kept up to this size; a rare longer one is let go.
constexpr std::size_t kKeptTextCapacity = 4096;

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
            outgoing.pump();
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
        outgoing.pump();
    }

private:
    std::shared_ptr<HandedOver> handed_;
};

OutgoingEvents& OutgoingEvents::shared() {
    // Never destroyed: completions may still run while the process exits.
    static auto* instance = new OutgoingEvents;
    return *instance;
}

void OutgoingEvents::submit(const EventFields& fields, std::shared_ptr<const DeviceFacts> facts,
                            bool isSavedEvent) {
    std::call_once(threadStart_, [this] { startHandOverThread(); });
    // Reused by every call on this thread, so that packing the texts allocates nothing once it
    // has grown; the texts then wait in blocks of their own, not in one allocation per event.
    thread_local std::string texts;
    texts.clear();
    SentEvent event(fields, std::move(facts), isSavedEvent, texts);
    std::string burst;
    HandOver handOver = HandOver::None;
    {
        std::lock_guard lock(mutex_);
        // Each of these changes nothing when it throws, and the last cannot.
        waiting_.reserveOne();
        waitingTexts_.append(texts);
        waiting_.push_back({std::move(event), texts.size()});
        waitingBytes_ += waiting_.back().bytes();
        burst = dropOverLimitsLocked();
        handOver = handOverNeededLocked();
    }
    if (texts.capacity() > kKeptTextCapacity) {
        texts = std::string();
    }
    start(handOver);
    if (!burst.empty() && Diagnostics::isOn()) {
        Diagnostics::report(DiagnosticLevel::Warning, burst);
    }
}

void OutgoingEvents::answersHandled(std::size_t count) {
    HandOver handOver = HandOver::None;
    {
        std::lock_guard lock(mutex_);
        unhandled_ -= count;
        handOver = handOverNeededLocked();
    }
    start(handOver);
}

void OutgoingEvents::waitUntilHandedOver() {
    std::unique_lock lock(mutex_);
    handedOver_.wait(lock, [this] { return !pumping_ && (waiting_.empty() || !hasRoomLocked()); });
}

bool OutgoingEvents::hasRoomLocked() const { return inClient_ < kWindow && unhandled_ < kWindow; }

OutgoingEvents::HandOver OutgoingEvents::handOverNeededLocked() {
    if (!threadStarted_) {
        return HandOver::Here;
    }
    if (pumping_ || asked_ || waiting_.empty() || !hasRoomLocked()) {
        return HandOver::None;
    }
    asked_ = true;
    return HandOver::Wake;
}

void OutgoingEvents::start(HandOver handOver) noexcept {
    if (handOver == HandOver::Wake) {
        handOverAsked_.notify_one();
    } else if (handOver == HandOver::Here) {
        pump();
    }
}

void OutgoingEvents::startHandOverThread() {
    // The default client is made here, on the host's thread: made on ours it could be set up
    // while the process exits, and its exit hooks must be registered before this one.
    Platform::httpClient();
    // Started with every signal blocked, so none of the host's is delivered to it.
    sigset_t all;
    sigset_t callers;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &callers);
    try {
        std::thread([this] { handOverForever(); }).detach();
        std::lock_guard lock(mutex_);
        threadStarted_ = true;
    } catch (const std::system_error&) {
        // No thread to be had: each caller hands over itself.
    }
    pthread_sigmask(SIG_SETMASK, &callers, nullptr);
    static_cast<void>(std::atexit([] {
        OutgoingEvents& outgoing = shared();
        std::lock_guard lock(outgoing.mutex_);
        outgoing.exiting_ = true;
    }));
}

// Never returns: the instance is never destroyed.
void OutgoingEvents::handOverForever() {
    pthread_setname_np(pthread_self(), "norv-handover");
    std::unique_lock lock(mutex_);
    while (true) {
        handOverAsked_.wait(lock, [this] { return asked_; });
        // Cleared first: an event added once the pump has looked for the last time asks again.
        asked_ = false;
        lock.unlock();
        pump();
        lock.lock();
    }
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
        waitingTexts_.popFront(waiting_.front().textBytes, nullptr);
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

void OutgoingEvents::pump() noexcept {
    std::unique_lock lock(mutex_);
    if (pumping_) {
        return;
    }
    pumping_ = true;
    // At exit nothing more is handed over: the process ends with what waits.
    while (!waiting_.empty() && hasRoomLocked() && !exiting_) {
        Waiting& waiting = waiting_.front();
        waitingBytes_ -= waiting.bytes();
        SentEvent event = std::move(waiting.event);
        std::string texts;
        bool kept = true;
        try {
            texts.reserve(waiting.textBytes);
        } catch (...) {
            // Out of memory: this one event is dropped.
            kept = false;
        }
        waitingTexts_.popFront(waiting.textBytes, kept ? &texts : nullptr);
        waiting_.pop_front();
        if (!kept) {
            continue;
        }
        event.adoptTexts(std::move(texts));
        ++inClient_;
        dropping_ = false;
        lock.unlock();
        handOver(std::move(event));
        lock.lock();
    }
    pumping_ = false;
    lock.unlock();
    handedOver_.notify_all();
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
