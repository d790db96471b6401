#include "delivery/DeliveryQueue.h"

#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include "events/AnswerRule.h"
#include "events/EventCatalogue.h"
#include "facade/DeviceFactsReader.h"
#include "platform/Diagnostics.h"
#include "platform/SdkThread.h"

namespace NorvAnalytic {

namespace {

// Records taken from the queue at a time: one read of the device's facts serves them all.
constexpr std::size_t kBatch = 64;

Text typeIdOf(const EventRecord& record) {
    const std::string* typeId = EventTable::find(record.texts, &Event::eventTypeId);
    return typeId ? Text(*typeId) : std::nullopt;
}

}  // namespace

// An event handed to the client: its record, what was made for it, and its place in the
// window, freed when the last reference goes (after its answer, or when a client destroys the
// completion without calling it).
class DeliveryQueue::Delivery {
public:
    Delivery(EventRecord record, std::shared_ptr<const DeviceFacts> device, std::uint64_t generation)
        : record(std::move(record)), device(std::move(device)), generation_(generation) {}
    ~Delivery() { shared().released(generation_); }
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    EventRecord record;
    std::shared_ptr<const DeviceFacts> device;
    std::string body;
    // A client that calls a copy of the completion again is not heard twice.
    std::atomic<bool> answered{false};

private:
    std::uint64_t generation_;
};

DeliveryQueue& DeliveryQueue::shared() {
    // Never destroyed: completions may still run while the process exits.
    static auto* queue = new DeliveryQueue;
    return *queue;
}

DeliveryQueue::DeliveryQueue() {
    pthread_atfork(&beforeFork, &afterForkInParent, &afterForkInChild);
}

void DeliveryQueue::submit(EventRecord record) {
    // Made here, on the host's thread, before our thread can ask for it: made later it could
    // be set up while the process exits, and its exit hook must be registered before ours.
    static std::once_flag clientMade;
    std::call_once(clientMade, [] { static_cast<void>(Platform::httpClient()); });
    const std::size_t bytes = record.bytes();
    // Destroyed after the lock is released: a record's ticket takes a lock of its own.
    std::vector<EventRecord> dropped;
    std::string warning;
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        if (!thread_) {
            startLocked();
        }
        waiting_.push_back(std::move(record));
        waitingBytes_ += bytes;
        while (waiting_.size() > maxEvents_ || waitingBytes_ > maxBytes_) {
            waitingBytes_ -= waiting_.front().bytes();
            dropped.push_back(std::move(waiting_.front()));
            waiting_.pop_front();
        }
        if (!dropped.empty()) {
            warning = countDroppedLocked(dropped.size());
        }
        if (idle_ && inWindow_ < kWindow) {
            idle_ = false;
            wake = true;
        }
    }
    if (wake) {
        wake_.notify_one();
    }
    report(warning);
}

void DeliveryQueue::startLocked() {
    try {
        thread_ = startSdkThread("norv-delivery", [this] { deliverForever(); });
    } catch (const std::system_error&) {
        // No thread to be had now: the events wait, and the next call tries again.
        return;
    }
    static const bool exitHook = [] {
        // Host exit handlers registered after the first event run before this one and may
        // still send; the thread then ends before the client's own hook cancels what is left.
        std::atexit([] {
            DeliveryQueue& queue = shared();
            std::thread thread;
            {
                std::lock_guard lock(queue.mutex_);
                if (queue.thread_ && queue.thread_->get_id() != std::this_thread::get_id()) {
                    thread = std::move(*queue.thread_);
                }
                queue.stopping_ = true;
                queue.idle_ = false;
            }
            queue.wake_.notify_one();
            if (thread.joinable()) {
                thread.join();
            }
        });
        return true;
    }();
    static_cast<void>(exitHook);
}

void DeliveryQueue::deliverForever() {
    std::vector<EventRecord> batch;
    batch.reserve(kBatch);
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (waiting_.empty() || inWindow_ >= kWindow) {
            idle_ = true;
            handedOver_.notify_all();
            wake_.wait(lock, [this] { return !idle_; });
            continue;
        }
        while (!waiting_.empty() && inWindow_ < kWindow && batch.size() < kBatch) {
            waitingBytes_ -= waiting_.front().bytes();
            batch.push_back(std::move(waiting_.front()));
            waiting_.pop_front();
            ++inWindow_;
        }
        dropping_ = false;
        handingOver_ = true;
        lock.unlock();
        std::shared_ptr<const DeviceFacts> device;
        try {
            device = DeviceFactsReader::read();
        } catch (...) {
            // Out of memory: these events are dropped, their places freed.
        }
        for (EventRecord& record : batch) {
            handOver(std::move(record), device);
        }
        batch.clear();
        lock.lock();
        handingOver_ = false;
    }
}

void DeliveryQueue::handOver(EventRecord record,
                             const std::shared_ptr<const DeviceFacts>& device) noexcept {
    std::shared_ptr<Delivery> delivery;
    try {
        std::shared_ptr<const DeviceFacts> facts = device;
        if (facts && EventCatalogue::isAppOpen(typeIdOf(record))) {
            facts = DeviceFactsReader::withAppOpenFacts(*device);
        }
        delivery = std::make_shared<Delivery>(std::move(record), std::move(facts), generation_);
    } catch (...) {
        // Out of memory: this one event is dropped.
        released(generation_);
        return;
    }
    if (!delivery->device) {
        return;
    }
    try {
        delivery->body =
            EventTable::body(delivery->record.texts, delivery->record.destination->key,
                             *delivery->device);
        HttpRequest request{"POST", delivery->record.destination->url, delivery->body};
        Platform::httpClient()->send(
            std::move(request),
            [delivery](std::optional<std::string> data, std::optional<HttpResponse> response,
                       std::optional<Error> error) mutable noexcept {
                try {
                    answered(delivery, std::move(data), response, std::move(error));
                } catch (...) {
                    // Out of memory: this one answer is not handled.
                }
                delivery.reset();
            });
    } catch (...) {
        // Out of memory, or a host's client that threw: this one event is dropped.
    }
}

void DeliveryQueue::answered(const std::shared_ptr<Delivery>& delivery,
                             std::optional<std::string> data, std::optional<HttpResponse> response,
                             std::optional<Error> error) {
    if (!delivery || delivery->answered.exchange(true)) {
        return;
    }
    const EventRecord& record = delivery->record;
    if (!data) {
        // No answer at all: the request never reached the server, and the event is dropped.
        const bool ours = error && error->domain == kHttpClientErrorDomain;
        if (ours && error->code == HttpClientErrorDropped) {
            DeliveryQueue& queue = shared();
            std::string warning;
            {
                std::lock_guard lock(queue.mutex_);
                warning = queue.countDroppedLocked(1);
            }
            queue.report(warning);
        } else if (!(ours && error->code == HttpClientErrorCancelled) && Diagnostics::isOn()) {
            Diagnostics::report(DiagnosticLevel::Warning,
                                EventCatalogue::describe(typeIdOf(record)) +
                                    " was not delivered: " +
                                    (error ? error->localizedDescription.value_or("") : "no answer"));
        }
        return;
    }
    const long statusCode = response ? response->statusCode : 0;
    const auto [logLevel, isEnabled] = ControllerState::locked(
        [](const ControllerState& state) { return std::pair(state.logLevel, state.isEnabled); });
    // Most answers end here, on the client's thread: delivered, and nobody reads them.
    if (!AnswerRule::keeps(statusCode, record.isSavedEvent) &&
        !AnswerRule::reads(typeIdOf(record), logLevel, isEnabled)) {
        return;
    }
    MainQueue::main().async([delivery, data = std::move(*data), response]() mutable {
        Delivery& sent = *delivery;
        NorvAnalytics::handleEventResponse(
            EventTable::context(sent.record.texts, sent.device->deviceUUID, std::move(sent.body),
                                sent.record.isSavedEvent),
            std::move(data), response, std::nullopt);
    });
}

void DeliveryQueue::released(std::uint64_t generation) {
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        if (generation != generation_) {
            return;
        }
        --inWindow_;
        // Woken when half the window is free, not for each answer.
        if (idle_ && !waiting_.empty() && inWindow_ <= kWindow / 2) {
            idle_ = false;
            wake = true;
        }
    }
    if (wake) {
        wake_.notify_one();
    }
}

std::string DeliveryQueue::countDroppedLocked(std::size_t count) {
    dropped_ += count;
    if (dropping_) {
        return {};
    }
    // Said once per burst: drops go on silently until an event is handed to the client again.
    dropping_ = true;
    return "Events waiting to be sent reached the limit (" + std::to_string(maxEvents_) +
           " events, " + std::to_string(maxBytes_) +
           " bytes): the oldest waiting events are being dropped (" + std::to_string(dropped_) +
           " dropped so far)";
}

void DeliveryQueue::report(const std::string& warning) {
    if (!warning.empty() && Diagnostics::isOn()) {
        Diagnostics::report(DiagnosticLevel::Warning, warning);
    }
}

void DeliveryQueue::setLimits(std::size_t maxEvents, std::size_t maxBytes) {
    std::vector<EventRecord> dropped;
    std::string warning;
    {
        std::lock_guard lock(mutex_);
        maxEvents_ = std::max<std::size_t>(maxEvents, 1);
        maxBytes_ = maxBytes;
        while (!waiting_.empty() && (waiting_.size() > maxEvents_ || waitingBytes_ > maxBytes_)) {
            waitingBytes_ -= waiting_.front().bytes();
            dropped.push_back(std::move(waiting_.front()));
            waiting_.pop_front();
        }
        if (!dropped.empty()) {
            warning = countDroppedLocked(dropped.size());
        }
    }
    report(warning);
}

std::uint64_t DeliveryQueue::droppedCount() const {
    std::lock_guard lock(mutex_);
    return dropped_;
}

void DeliveryQueue::waitUntilHandedOver() {
    std::unique_lock lock(mutex_);
    handedOver_.wait(lock, [this] { return !handingOver_ && (waiting_.empty() || idle_ || !thread_); });
}

void DeliveryQueue::beforeFork() { shared().mutex_.lock(); }

void DeliveryQueue::afterForkInParent() { shared().mutex_.unlock(); }

// The child has none of our threads, and what waited in the parent is the parent's to send:
// it is left where it is, never sent twice, and the child's first event starts a thread anew.
void DeliveryQueue::afterForkInChild() {
    DeliveryQueue& queue = shared();
    static_cast<void>(new std::deque<EventRecord>(std::move(queue.waiting_)));
    queue.waiting_.clear();
    if (queue.thread_) {
        abandonParentsThread(*queue.thread_);
        queue.thread_.reset();
    }
    queue.waitingBytes_ = 0;
    queue.inWindow_ = 0;
    ++queue.generation_;
    queue.idle_ = false;
    queue.handingOver_ = false;
    queue.dropping_ = false;
    // Their waiters were threads of the parent's.
    new (&queue.wake_) std::condition_variable;
    new (&queue.handedOver_) std::condition_variable;
    queue.mutex_.unlock();
}

}  // namespace NorvAnalytic
