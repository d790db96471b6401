#include "delivery/Outbox.h"

#include <NorvAnalytic/Platform.h>
#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <system_error>
#include <utility>

#include "delivery/EventIds.h"
#include "events/EventCatalogue.h"
#include "platform/Diagnostics.h"
#include "platform/SdkThread.h"

namespace NorvAnalytic {

namespace {

// Records taken from the queue at a time: one read of the device's facts serves them all.
constexpr std::size_t kBatch = 64;
// Records written to the queue file in one commit.
constexpr std::size_t kPersistBatch = 512;

bool isAppOpen(const EventRecord& record) {
    const std::string* typeId = EventTable::find(record.texts, &Event::eventTypeId);
    return typeId && EventCatalogue::isAppOpen(*typeId);
}

// Made on the host's thread, before our thread can ask for it: made later it could be set up
// while the process exits, and its exit hook must be registered before ours.
void prepareClient() {
    [[maybe_unused]] static const bool made = (static_cast<void>(Platform::httpClient()), true);
}

}  // namespace

Outbox& Outbox::shared() {
    // Never destroyed: completions may still run while the process exits.
    static auto* outbox = new Outbox;
    return *outbox;
}

Outbox::Outbox() : journal_([this] { wake(); }) {
    journal_.setLimits(kDefaultMaxEvents, kDefaultMaxBytes);
    pthread_atfork(&beforeFork, &afterForkInParent, &afterForkInChild);
}

void Outbox::connect(Connections connections) { connections_ = std::move(connections); }

void Outbox::submit(EventRecord record) {
    prepareClient();
    // Made only past a bound: the caller's usual path builds and tears down nothing for it.
    std::optional<Dropped> dropped;
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        ensureThreadLocked();
        queuedBytes_ += record.bytes();
        waiting_.push_back(std::move(record));
        if (overBoundsLocked()) {
            dropped = trimLocked();
        }
        wake = (journal_.isOpen() || inWindow_ < kWindow) && wakeLocked();
    }
    if (wake) {
        wake_.notify_one();
    }
    if (dropped) {
        dropped->account();
    }
}

void Outbox::ensureThreadLocked() {
    if (thread_) {
        return;
    }
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
            Outbox& outbox = shared();
            std::thread thread;
            {
                std::lock_guard lock(outbox.mutex_);
                if (outbox.thread_ && outbox.thread_->get_id() != std::this_thread::get_id()) {
                    thread = std::move(*outbox.thread_);
                }
                outbox.stopping_ = true;
                outbox.idle_ = false;
            }
            outbox.wake_.notify_one();
            if (thread.joinable()) {
                thread.join();
            }
        });
        return true;
    }();
    static_cast<void>(exitHook);
}

void Outbox::wake() {
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        wake = wakeLocked();
    }
    if (wake) {
        wake_.notify_one();
    }
}

bool Outbox::wakeLocked() { return std::exchange(idle_, false); }

bool Outbox::hasWorkLocked() const {
    const std::size_t room = kWindow - std::min(inWindow_, kWindow);
    if (room > 0 && (!ready_.empty() || !waiting_.empty())) {
        return true;
    }
    // With the file, waiting records are written down whatever room the window has.
    if (!waiting_.empty() && journal_.isOpen()) {
        return true;
    }
    // Rows are read back when half the window is free, as records are handed over.
    return journal_.needsTurn(inWindow_ <= kWindow / 2 ? room : 0);
}

Outbox::Turn Outbox::takeLocked(bool last) {
    Turn turn;
    turn.last = last;
    const std::size_t room = last ? 0 : kWindow - std::min(inWindow_, kWindow);
    while (!ready_.empty() && turn.ready.size() < room) {
        queuedBytes_ -= ready_.front().bytes();
        turn.ready.push_back(std::move(ready_.front()));
        ready_.pop_front();
    }
    // With the file, every waiting record is written at once, whatever room the window has.
    const bool persist = journal_.accepting() || (last && journal_.isOpen());
    const std::size_t limit = persist ? kPersistBatch : std::min(kBatch, room - turn.ready.size());
    turn.records.reserve(std::min(limit, waiting_.size()));
    while (!waiting_.empty() && turn.records.size() < limit) {
        queuedBytes_ -= waiting_.front().bytes();
        turn.records.push_back(std::move(waiting_.front()));
        waiting_.pop_front();
    }
    if (!turn.records.empty()) {
        dropping_ = false;
    }
    turn.moreWaiting = !waiting_.empty();
    turn.room = room;
    inWindow_ += room;
    turning_ = true;
    touching_ = !turn.records.empty();
    return turn;
}

void Outbox::deliverForever() {
    std::unique_lock lock(mutex_);
    while (true) {
        // At exit, what waits and what the answers changed is written down, nothing sent.
        const bool last = stopping_;
        if (last && !journal_.isOpen()) {
            break;
        }
        if (!last && !hasWorkLocked()) {
            idle_ = true;
            quiet_.notify_all();
            const auto awake = [this] { return !idle_; };
            bool woken = true;
            if (const auto due = journal_.dueAt()) {
                woken = wake_.wait_until(lock, *due, awake);
            } else {
                wake_.wait(lock, awake);
            }
            idle_ = false;
            // Woken, it looks again; at the file's due time, it takes a turn.
            if (woken) {
                continue;
            }
        }
        // The file opens when wanted and closes when not, before events are taken: they are
        // written down or sent from memory by what it is now. What a closed file held goes
        // from memory, before anything newer.
        turning_ = true;
        lock.unlock();
        std::vector<Outgoing> moved;
        try {
            moved = journal_.reconcile();
        } catch (...) {
            // Out of memory: what the file held is let go.
        }
        lock.lock();
        Dropped dropped = addReadyLocked(moved, true);
        Turn turn = takeLocked(last);
        lock.unlock();
        dropped.account();
        std::size_t used = 0;
        try {
            used = run(turn);
        } catch (...) {
            // Out of memory: what this turn held is dropped.
        }
        lock.lock();
        inWindow_ = inWindow_ + used - turn.room;
        turning_ = false;
        touching_ = false;
        quiet_.notify_all();
        if (last && waiting_.empty()) {
            break;
        }
    }
}

std::size_t Outbox::run(Turn& turn) {
    std::vector<Outgoing> built = build(turn.records);
    dropFenced(built);
    dropFenced(turn.ready);
    setTouching(false);

    std::vector<Outgoing> now = std::move(turn.ready);
    std::vector<Outgoing> fromMemory;
    if (!built.empty() && journal_.accepting()) {
        Journal::Accepted accepted = journal_.accept(std::move(built), turn.room - now.size());
        std::ranges::move(accepted.now, std::back_inserter(now));
        fromMemory = std::move(accepted.unwritten);
        if (accepted.discarded > 0 && connections_.discarded) {
            connections_.discarded(accepted.discardedBy, accepted.discarded);
        }
    } else {
        fromMemory = std::move(built);
    }
    std::size_t next = 0;
    now.reserve(std::min(turn.room, now.size() + fromMemory.size()));
    while (next < fromMemory.size() && now.size() < turn.room) {
        now.push_back(std::move(fromMemory[next++]));
    }
    if (next < fromMemory.size()) {
        fromMemory.erase(fromMemory.begin(), fromMemory.begin() + static_cast<std::ptrdiff_t>(next));
        Dropped dropped;
        {
            std::lock_guard lock(mutex_);
            dropped = addReadyLocked(fromMemory, false);
        }
        dropped.account();
    }
    // A burst goes into the file first: what is accepted is safe before anything is read back.
    if (!turn.moreWaiting && now.size() < turn.room) {
        std::ranges::move(journal_.readBack(turn.room - now.size()), std::back_inserter(now));
    }
    journal_.commit(turn.last);
    if (const std::size_t lost = journal_.takeLost(); lost > 0) {
        countLost(lost);
    }
    return handOver(now);
}

std::vector<Outgoing> Outbox::build(std::vector<EventRecord>& records) {
    std::vector<Outgoing> built;
    // A fence since they were taken: none of them is built, so no identity is read for them.
    if (!records.empty() && !PrivacyEpoch::isCurrent(records.front().epoch)) {
        for (EventRecord& record : records) {
            built.push_back({std::move(record), {}, {}});
        }
        records.clear();
        return built;
    }
    if (records.empty() || connections_.deviceFacts == nullptr) {
        return built;
    }
    const std::shared_ptr<const DeviceFacts> device = connections_.deviceFacts->read();
    built.reserve(records.size());
    for (EventRecord& record : records) {
        std::shared_ptr<const DeviceFacts> facts = device;
        if (isAppOpen(record)) {
            facts = connections_.deviceFacts->withAppOpenFacts(*device);
        }
        std::string body = EventTable::body(record.texts, record.destination->key, *facts);
        built.push_back({std::move(record), std::move(body), std::move(facts)});
    }
    records.clear();
    return built;
}

void Outbox::dropFenced(std::vector<Outgoing>& events) {
    const std::size_t before = events.size();
    std::optional<FenceKind> kind;
    std::erase_if(events, [&](const Outgoing& event) {
        if (PrivacyEpoch::isCurrent(event.record.epoch)) {
            return false;
        }
        kind = PrivacyEpoch::fenceSince(event.record.epoch);
        return true;
    });
    if (kind && connections_.discarded) {
        connections_.discarded(*kind, before - events.size());
    }
}

void Outbox::setTouching(bool touching) {
    std::lock_guard lock(mutex_);
    touching_ = touching;
    if (!touching) {
        quiet_.notify_all();
    }
}

std::size_t Outbox::handOver(std::vector<Outgoing>& events) {
    if (events.empty()) {
        return 0;
    }
    // Marked before the epoch is looked at: a fence either shows here, or waits for the sends.
    setTouching(true);
    dropFenced(events);
    // Looked up once a turn: the client a host set mid-turn takes the next turn's events.
    const std::shared_ptr<HttpClient> client = Platform::httpClient();
    for (Outgoing& event : events) {
        handOver(std::move(event), *client);
    }
    setTouching(false);
    return events.size();
}

void Outbox::handOver(Outgoing event, HttpClient& client) noexcept {
    std::shared_ptr<SentEvent> sent;
    try {
        sent = std::make_shared<SentEvent>(std::move(event), generation_);
    } catch (...) {
        // Out of memory: this one event is dropped.
        released(generation_);
        return;
    }
    try {
        Outgoing& outgoing = sent->outgoing;
        HttpRequest request{"POST", outgoing.record.destination->url, outgoing.bodyForRequest(), {}};
        if (outgoing.record.eventId) {
            request.headers.emplace_back(EventIds::kHeader,
                                         EventIds::headerValue(*outgoing.record.eventId));
        }
        client.send(
            std::move(request),
            [sent](std::optional<std::string> data, std::optional<HttpResponse> response,
                   std::optional<Error> error) mutable noexcept {
                try {
                    shared().answered(sent, std::move(data), response, std::move(error));
                } catch (...) {
                    // Out of memory: this one answer is not handled.
                }
                sent.reset();
            });
    } catch (...) {
        // Out of memory, or a host's client that threw: this one event is dropped.
    }
}

void Outbox::answered(std::shared_ptr<SentEvent>& sent, std::optional<std::string> data,
                      std::optional<HttpResponse> response, std::optional<Error> error) {
    if (!sent || sent->answered.exchange(true)) {
        return;
    }
    const std::uint64_t epoch = sent->outgoing.record.epoch;
    if (!PrivacyEpoch::isCurrent(epoch)) {
        // Recorded before a fence: its answer is neither read nor kept. One that never reached
        // the server is counted with what the fence discarded.
        if (!data && connections_.discarded) {
            connections_.discarded(PrivacyEpoch::fenceSince(epoch), 1);
        }
        return;
    }
    const bool dropped = !data && error && error->domain == kHttpClientErrorDomain &&
                         error->code == HttpClientErrorDropped;
    if (dropped && sent->outgoing.row) {
        sent->settle(Journal::Settlement::Unanswered);
        return;
    }
    if (dropped) {
        countLost(1);
        return;
    }
    if (connections_.answered) {
        connections_.answered(std::move(sent), std::move(data), response, std::move(error));
    }
}

void Outbox::released(std::uint64_t generation) {
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        if (generation != generation_) {
            return;
        }
        --inWindow_;
        // Woken when half the window is free, not for each answer.
        wake = idle_ && inWindow_ <= kWindow / 2 && hasWorkLocked() && wakeLocked();
    }
    if (wake) {
        wake_.notify_one();
    }
}

Outbox::Dropped Outbox::addReadyLocked(std::vector<Outgoing>& events, bool inFront) {
    for (Outgoing& event : events) {
        queuedBytes_ += event.bytes();
    }
    if (inFront) {
        ready_.insert(ready_.begin(), std::make_move_iterator(events.begin()),
                      std::make_move_iterator(events.end()));
    } else {
        std::ranges::move(events, std::back_inserter(ready_));
    }
    events.clear();
    return trimLocked();
}

Outbox::Dropped Outbox::trimLocked() {
    Dropped dropped;
    while (overBoundsLocked() && !(waiting_.empty() && ready_.empty())) {
        // The oldest first: what a file held or could not take came before the waiting records.
        if (!ready_.empty()) {
            queuedBytes_ -= ready_.front().bytes();
            dropped.ready.push_back(std::move(ready_.front()));
            ready_.pop_front();
        } else {
            queuedBytes_ -= waiting_.front().bytes();
            dropped.records.push_back(std::move(waiting_.front()));
            waiting_.pop_front();
        }
    }
    const std::size_t count = dropped.records.size() + dropped.ready.size();
    dropped.warning = count > 0 ? countDroppedLocked(count) : std::string();
    return dropped;
}

void Outbox::Dropped::account() {
    if (const std::size_t count = records.size() + ready.size(); count > 0) {
        EventsInFlight::noteLost(count);
    }
    records.clear();
    ready.clear();
    report(warning);
}

void Outbox::countLost(std::size_t count) {
    std::string warning;
    {
        std::lock_guard lock(mutex_);
        warning = countDroppedLocked(count);
    }
    EventsInFlight::noteLost(count);
    report(warning);
}

std::string Outbox::countDroppedLocked(std::size_t count) {
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

void Outbox::report(const std::string& warning) {
    if (!warning.empty() && Diagnostics::isOn()) {
        Diagnostics::report(DiagnosticLevel::Warning, warning);
    }
}

void Outbox::setLimits(std::size_t maxEvents, std::size_t maxBytes) {
    Dropped dropped;
    {
        std::lock_guard lock(mutex_);
        maxEvents_ = std::max<std::size_t>(maxEvents, 1);
        maxBytes_ = maxBytes;
        dropped = trimLocked();
    }
    journal_.setLimits(std::max<std::size_t>(maxEvents, 1), maxBytes);
    dropped.account();
}

std::uint64_t Outbox::droppedCount() const {
    std::lock_guard lock(mutex_);
    return dropped_;
}

void Outbox::setPersistent(bool persistent) {
    prepareClient();
    {
        std::lock_guard lock(mutex_);
        ensureThreadLocked();
    }
    journal_.setWanted(persistent);
}

void Outbox::recover() {
    if (!journal_.wanted()) {
        journal_.recover();
        return;
    }
    prepareClient();
    {
        std::lock_guard lock(mutex_);
        ensureThreadLocked();
    }
    journal_.recover();
}

void Outbox::fence(FenceKind kind) {
    PrivacyEpoch::advance(kind);
    std::deque<EventRecord> waiting;
    std::deque<Outgoing> ready;
    {
        std::unique_lock lock(mutex_);
        waiting.swap(waiting_);
        ready.swap(ready_);
        queuedBytes_ = 0;
        // A turn that took events before the call builds and sends none of them after it. Our
        // own thread (a host's client or sink calling from inside a turn) re-checks as it goes.
        if (!thread_ || thread_->get_id() != std::this_thread::get_id()) {
            quiet_.wait(lock, [this] { return !touching_; });
        }
    }
    const std::uint64_t discarded = waiting.size() + ready.size() + journal_.fence(kind);
    try {
        Platform::httpClient()->cancelUnsent();
    } catch (...) {
        // A host's client that threw: what it holds may still go out.
    }
    if (discarded > 0 && connections_.discarded) {
        connections_.discarded(kind, discarded);
    }
}

void Outbox::waitUntilHandedOver() {
    std::unique_lock lock(mutex_);
    // Asleep is enough: asleep with work, it waits for half the window, which only the client
    // that called this can free.
    quiet_.wait(lock, [this] {
        return !turning_ && (!thread_ || (idle_ && !journal_.hasPendingChanges()));
    });
}

void Outbox::beforeFork() { shared().mutex_.lock(); }

void Outbox::afterForkInParent() { shared().mutex_.unlock(); }

// The child has none of our threads, and what waited in the parent is the parent's to send:
// it is left where it is, never sent twice, and the child's first event starts a thread anew.
void Outbox::afterForkInChild() {
    Outbox& outbox = shared();
    static_cast<void>(new std::deque<EventRecord>(std::move(outbox.waiting_)));
    static_cast<void>(new std::deque<Outgoing>(std::move(outbox.ready_)));
    outbox.waiting_.clear();
    outbox.ready_.clear();
    if (outbox.thread_) {
        abandonParentsThread(*outbox.thread_);
        outbox.thread_.reset();
    }
    outbox.queuedBytes_ = 0;
    outbox.inWindow_ = 0;
    ++outbox.generation_;
    outbox.idle_ = false;
    outbox.turning_ = false;
    outbox.touching_ = false;
    outbox.dropping_ = false;
    outbox.journal_.abandonInChild();
    // Their waiters were threads of the parent's.
    new (&outbox.wake_) std::condition_variable;
    new (&outbox.quiet_) std::condition_variable;
    outbox.mutex_.unlock();
}

}  // namespace NorvAnalytic
