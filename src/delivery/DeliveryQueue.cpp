#include "delivery/DeliveryQueue.h"

#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include "events/AnswerRule.h"
#include "events/EventCatalogue.h"
#include "events/SavedEvents.h"
#include "facade/CollectionConsent.h"
#include "facade/DeviceFactsReader.h"
#include "platform/Diagnostics.h"
#include "platform/SdkThread.h"

namespace NorvAnalytic {

namespace {

// Records taken from the queue at a time: one read of the device's facts serves them all.
constexpr std::size_t kBatch = 64;
// Records written to the queue file in one commit.
constexpr std::size_t kPersistBatch = 512;
// What the answers change in the file is written in groups: at this many, or this long after
// the first, whichever comes first. A kill can cost a duplicate of what was answered meanwhile.
constexpr std::size_t kChangesPerCommit = 128;
constexpr std::chrono::milliseconds kCommitDelay{10};
// A retry round that got an answer sends every unanswered row.
constexpr std::size_t kAllRetries = std::numeric_limits<std::size_t>::max();

Text typeIdOf(const EventRecord& record) {
    const std::string* typeId = EventTable::find(record.texts, &Event::eventTypeId);
    return typeId ? Text(*typeId) : std::nullopt;
}

// The device UUID a body was made with, for the answer's log lines.
std::string deviceUUIDIn(std::string_view body) {
    constexpr std::string_view kKey = "device_uuid=";
    std::size_t start = body.starts_with(kKey) ? 0 : body.find("&" + std::string(kKey));
    if (start == std::string_view::npos) {
        return {};
    }
    start = body.find('=', start) + 1;
    return std::string(body.substr(start, body.find('&', start) - start));
}

// The host's queue file, named by its bundle identifier.
std::filesystem::path queuePath() {
    const std::shared_ptr<const Bundle> bundle = Bundle::mainBundle();
    return QueueFile::pathFor(bundle ? bundle->bundleIdentifier() : std::string());
}

}  // namespace

// A row read back from the file, as the client gets it: its texts (none, when a later version
// wrote names this one does not know), its URL and its body as first made.
DeliveryQueue::Ready DeliveryQueue::readyFrom(const QueueFile::Row& row,
                                              EventsInFlight::Ticket ticket, bool retried) {
    return {{EventTable::decode(row.texts).value_or(EventTexts{}),
             std::make_shared<const Destination>(Destination{std::nullopt, row.url}),
             std::move(ticket), row.isSavedEvent},
            row.body, deviceUUIDIn(row.body), row.id, retried};
}

// An event handed to the client: what was made for it, and its place in the window, freed
// when the last reference goes (after its answer, or when a client destroys the completion
// without calling it).
class DeliveryQueue::Delivery {
public:
    Delivery(Ready ready, std::uint64_t generation) : ready(std::move(ready)), generation_(generation) {}
    ~Delivery() { shared().released(generation_, ready.retried); }
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    Ready ready;
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

// Made on the host's thread, before our thread can ask for it: made later it could be set up
// while the process exits, and its exit hook must be registered before ours.
void DeliveryQueue::prepareClient() {
    static std::once_flag clientMade;
    std::call_once(clientMade, [] { static_cast<void>(Platform::httpClient()); });
}

void DeliveryQueue::submit(EventRecord record) {
    prepareClient();
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
        wake = (persistent_ || inWindow_ < kWindow) && wakeLocked();
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

bool DeliveryQueue::wakeLocked() {
    return std::exchange(idle_, false);
}

bool DeliveryQueue::hasWorkLocked() const {
    if (!persistent_) {
        return close_ || (!waiting_.empty() && inWindow_ < kWindow);
    }
    // Rows are read back when half the window is free, as records are handed over.
    return !waiting_.empty() || changes_.size() >= kChangesPerCommit || close_ || discard_ ||
           tick_ || (inWindow_ <= kWindow / 2 && (backlog_ > 0 || (retries_ > 0 && unanswered_ > 0)));
}

DeliveryQueue::Turn DeliveryQueue::takeLocked() {
    Turn turn;
    turn.persistent = persistent_;
    turn.close = std::exchange(close_, false);
    turn.discard = std::exchange(discard_, false);
    turn.tick = std::exchange(tick_, false);
    // Written with the records, or once the group is full or due, or before unanswered rows are
    // counted or read (an answered one must not be tried again); reading pending rows back
    // needs none of it.
    if (!waiting_.empty() || stopping_ || turn.tick || retries_ > 0 ||
        changes_.size() >= kChangesPerCommit ||
        std::chrono::steady_clock::now() - changesSince_ >= kCommitDelay) {
        turn.changes.swap(changes_);
    }
    const std::size_t room = stopping_ ? 0 : kWindow - std::min(inWindow_, kWindow);
    // With the file, every waiting record is written at once, whatever room the window has.
    const std::size_t limit = persistent_ ? kPersistBatch : std::min(kBatch, room);
    while (!waiting_.empty() && turn.records.size() < limit) {
        waitingBytes_ -= waiting_.front().bytes();
        turn.records.push_back(std::move(waiting_.front()));
        waiting_.pop_front();
    }
    if (!turn.records.empty()) {
        dropping_ = false;
    }
    turn.moreWaiting = !waiting_.empty();
    turn.room = persistent_ ? room : turn.records.size();
    inWindow_ += turn.room;
    return turn;
}

void DeliveryQueue::deliverForever() {
    std::unique_lock lock(mutex_);
    while (true) {
        // At exit, what the answers changed and what waits is written down, nothing sent.
        const bool last = stopping_;
        if (last && !persistent_) {
            break;
        }
        if (!last && !hasWorkLocked()) {
            idle_ = true;
            handedOver_.notify_all();
            if (changes_.empty()) {
                wake_.wait(lock, [this] { return !idle_; });
                continue;
            }
            if (wake_.wait_for(lock, kCommitDelay, [this] { return !idle_; })) {
                continue;
            }
            idle_ = false;
        }
        Turn turn = takeLocked();
        handingOver_ = true;
        lock.unlock();
        std::size_t used = 0;
        std::size_t backlog = 0;
        {
            std::lock_guard files(fileMutex_);
            used = run(turn);
            backlog = backlogRows_.size();
        }
        lock.lock();
        inWindow_ = inWindow_ + used - turn.room;
        backlog_ = backlog;
        handingOver_ = false;
        if (last && waiting_.empty()) {
            break;
        }
    }
}

std::size_t DeliveryQueue::run(Turn& turn) {
    if (turn.close) {
        closeFile(true);
    }
    if (turn.discard && file_) {
        // Consent withdrawn: this process's rows go with the waiting records.
        try {
            file_->clear();
        } catch (...) {
            // The file refused: it is let go below, and its rows with it for this process.
        }
        closeFile(false);
    }
    if (!CollectionConsent::allowed()) {
        // Nothing is read, written or sent.
        CollectionConsent::countDiscarded(turn.records.size());
        return 0;
    }
    std::vector<Ready> ready = build(turn.records);
    turn.records.clear();
    if (turn.persistent && !fileFailed_ && (file_ || openFile())) {
        return persist(turn, ready);
    }
    for (Ready& each : ready) {
        handOver(std::move(each));
    }
    return ready.size();
}

std::vector<DeliveryQueue::Ready> DeliveryQueue::build(std::vector<EventRecord>& records) {
    std::vector<Ready> ready;
    if (records.empty()) {
        return ready;
    }
    try {
        const std::shared_ptr<const DeviceFacts> device = DeviceFactsReader::read();
        ready.reserve(records.size());
        for (EventRecord& record : records) {
            std::shared_ptr<const DeviceFacts> facts = device;
            if (EventCatalogue::isAppOpen(typeIdOf(record))) {
                facts = DeviceFactsReader::withAppOpenFacts(*device);
            }
            std::string body = EventTable::body(record.texts, record.destination->key, *facts);
            ready.push_back({std::move(record), std::move(body), facts->deviceUUID});
        }
    } catch (...) {
        // Out of memory: the events not made yet are dropped.
    }
    return ready;
}

std::size_t DeliveryQueue::persist(Turn& turn, std::vector<Ready>& ready) {
    std::vector<QueueFile::Row> rows;
    std::vector<std::int64_t> ids;
    bool written = false;
    try {
        rows.reserve(ready.size());
        for (const Ready& each : ready) {
            rows.push_back({0, each.record.destination->url, each.body,
                            EventTable::encode(each.record.texts), each.record.isSavedEvent});
        }
        // A turn that only reads back takes no write lock from the host's other processes.
        written = (rows.empty() && turn.changes.empty()) || file_->write(rows, ids, turn.changes);
    } catch (...) {
        // The file refused a statement, or memory ran out: these go from memory.
    }
    std::size_t used = 0;
    if (!written) {
        // Said once: until the queue is turned on again, events go from memory.
        Diagnostics::report(DiagnosticLevel::Error,
                            "The event queue file " + path_.string() +
                                " could not be written: events are sent from memory.");
        closeFile(false);
        fileFailed_ = true;
        for (Ready& each : ready) {
            handOver(std::move(each));
            ++used;
        }
        return used;
    }
    for (std::size_t index = 0; index < ready.size(); ++index) {
        if (backlogRows_.empty() && used < turn.room) {
            ready[index].row = ids[index];
            handedOverRow_ = ids[index];
            handOver(std::move(ready[index]));
            ++used;
        } else {
            const std::size_t bytes = rows[index].body.size() + rows[index].texts.size();
            backlogBytes_ += bytes;
            backlogRows_.push_back({ids[index], bytes, std::move(ready[index].record.ticket)});
        }
    }
    ready.clear();
    rows.clear();
    trimBacklog();
    if (turn.tick) {
        try {
            const auto [maxEvents, maxBytes] = SavedEvents::limits();
            const std::size_t trimmed =
                file_->trim(QueueFile::State::Unanswered, 0, maxEvents, maxBytes);
            const std::size_t unanswered = file_->count(QueueFile::State::Unanswered).events;
            std::string warning;
            {
                std::lock_guard lock(mutex_);
                unanswered_ = unanswered;
                // A row still on its way from the last round is not tried twice.
                if (unanswered_ > 0 && retries_ == 0 && retriedInFlight_ == 0) {
                    retryRound_ = true;
                    // One try first: the rest follow once it has an answer.
                    retries_ = 1;
                }
                if (trimmed > 0) {
                    warning = countDroppedLocked(trimmed);
                }
            }
            report(warning);
        } catch (...) {
            // The file refused: the next tick tries again.
        }
    }
    // A burst goes into the file first: what is accepted is safe before anything is read back.
    return turn.moreWaiting ? used : used + readBack(turn.room - used);
}

void DeliveryQueue::trimBacklog() {
    std::size_t maxEvents = 0;
    std::size_t maxBytes = 0;
    {
        std::lock_guard lock(mutex_);
        maxEvents = maxEvents_;
        maxBytes = maxBytes_;
    }
    std::vector<QueueFile::Change> oldest;
    std::vector<EventsInFlight::Ticket> tickets;
    while (backlogRows_.size() > maxEvents || backlogBytes_ > maxBytes) {
        oldest.push_back({backlogRows_.front().id, std::nullopt});
        backlogBytes_ -= backlogRows_.front().bytes;
        tickets.push_back(std::move(backlogRows_.front().ticket));
        backlogRows_.pop_front();
    }
    if (oldest.empty()) {
        return;
    }
    std::vector<std::int64_t> none;
    try {
        file_->write({}, none, oldest);
    } catch (...) {
        // Left in the file: the next process sends them.
    }
    std::string warning;
    {
        std::lock_guard lock(mutex_);
        warning = countDroppedLocked(oldest.size());
    }
    report(warning);
}

std::size_t DeliveryQueue::readBack(std::size_t room) {
    std::size_t used = 0;
    try {
        while (used < room) {
            std::size_t retries = 0;
            {
                std::lock_guard lock(mutex_);
                retries = retries_;
            }
            if (retries == 0) {
                break;
            }
            const auto rows = file_->read(QueueFile::State::Unanswered, retriedRow_,
                                          std::min({room - used, retries, kBatch}));
            if (rows.empty()) {
                // The round is over; the next one starts from the oldest again.
                retriedRow_ = 0;
                std::lock_guard lock(mutex_);
                retries_ = 0;
                retryRound_ = false;
                break;
            }
            for (const QueueFile::Row& row : rows) {
                retriedRow_ = row.id;
                {
                    std::lock_guard lock(mutex_);
                    retries_ -= retries_ == kAllRetries || retries_ == 0 ? 0 : 1;
                    ++retriedInFlight_;
                }
                handOver(readyFrom(row, EventsInFlight::begin(), true));
                ++used;
            }
        }
        while (used < room && !backlogRows_.empty()) {
            const auto rows = file_->read(QueueFile::State::Pending, handedOverRow_,
                                          std::min(room - used, kBatch));
            if (rows.empty()) {
                // Erased under us by another process.
                backlogRows_.clear();
                backlogBytes_ = 0;
                break;
            }
            for (const QueueFile::Row& row : rows) {
                while (!backlogRows_.empty() && backlogRows_.front().id < row.id) {
                    backlogBytes_ -= backlogRows_.front().bytes;
                    backlogRows_.pop_front();
                }
                std::optional<EventsInFlight::Ticket> ticket;
                if (!backlogRows_.empty() && backlogRows_.front().id == row.id) {
                    backlogBytes_ -= backlogRows_.front().bytes;
                    ticket.emplace(std::move(backlogRows_.front().ticket));
                    backlogRows_.pop_front();
                }
                handedOverRow_ = row.id;
                handOver(readyFrom(row, ticket ? std::move(*ticket) : EventsInFlight::begin(), false));
                ++used;
            }
        }
    } catch (...) {
        // The file refused a read: its rows wait there for the next process.
        Diagnostics::report(DiagnosticLevel::Error, "The event queue file " + path_.string() +
                                                        " could not be read: events are sent "
                                                        "from memory.");
        closeFile(false);
        fileFailed_ = true;
    }
    return used;
}

bool DeliveryQueue::openFile() {
    try {
        path_ = queuePath();
        file_ = QueueFile::open(path_);
        if (!file_) {
            fileFailed_ = true;
            return false;
        }
        for (const std::int64_t id : file_->claimOrphans()) {
            backlogRows_.push_back({id, 0, EventsInFlight::begin()});
        }
        handedOverRow_ = 0;
        retriedRow_ = 0;
        fileFailed_ = false;
        const std::size_t unanswered = file_->count(QueueFile::State::Unanswered).events;
        {
            std::lock_guard lock(mutex_);
            backlog_ = backlogRows_.size();
            unanswered_ = unanswered;
        }
        if (auto* appeared = resendWork_.load(); appeared != nullptr && unanswered > 0) {
            appeared();
        }
        return true;
    } catch (...) {
        file_.reset();
        fileFailed_ = true;
        return false;
    }
}

void DeliveryQueue::closeFile(bool remove) {
    file_.reset();
    if (remove) {
        // Also a file an earlier process left that this one never opened.
        QueueFile::remove(path_.empty() ? queuePath() : path_);
    }
    backlogRows_.clear();
    backlogBytes_ = 0;
    handedOverRow_ = 0;
    retriedRow_ = 0;
    fileFailed_ = false;
    std::lock_guard lock(mutex_);
    backlog_ = 0;
    unanswered_ = 0;
    retries_ = 0;
    retryRound_ = false;
    changes_.clear();
}

void DeliveryQueue::recover() {
    {
        std::lock_guard lock(mutex_);
        if (!persistent_) {
            return;
        }
    }
    const bool enabled =
        ControllerState::locked([](const ControllerState& state) { return state.isEnabled; });
    if (!enabled || !CollectionConsent::allowed()) {
        return;
    }
    prepareClient();
    {
        std::lock_guard files(fileMutex_);
        if (file_ || !openFile()) {
            return;
        }
    }
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        if (!thread_) {
            startLocked();
        }
        wake = wakeLocked();
    }
    if (wake) {
        wake_.notify_one();
    }
}

void DeliveryQueue::handOver(Ready ready) noexcept {
    std::shared_ptr<Delivery> delivery;
    try {
        delivery = std::make_shared<Delivery>(std::move(ready), generation_);
    } catch (...) {
        // Out of memory: this one event is dropped.
        released(generation_, ready.retried);
        return;
    }
    try {
        HttpRequest request{"POST", delivery->ready.record.destination->url, delivery->ready.body};
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
    const Ready& sent = delivery->ready;
    const EventRecord& record = sent.record;
    const long statusCode = response ? response->statusCode : 0;
    if (!data) {
        // No answer at all: the request never reached the server. With the file, the event
        // stays there for another try; without it, the event is dropped.
        const bool ours = error && error->domain == kHttpClientErrorDomain;
        const bool cancelled = ours && error->code == HttpClientErrorCancelled;
        if (sent.row != 0) {
            // Cancelled at exit: the row stays pending for the next process.
            if (!cancelled) {
                shared().noteChange({sent.row, QueueFile::State::Unanswered}, sent.retried, false);
            }
            return;
        }
        if (ours && error->code == HttpClientErrorDropped) {
            DeliveryQueue& queue = shared();
            std::string warning;
            {
                std::lock_guard lock(queue.mutex_);
                warning = queue.countDroppedLocked(1);
            }
            queue.report(warning);
        } else if (!cancelled && Diagnostics::isOn()) {
            Diagnostics::report(DiagnosticLevel::Warning,
                                EventCatalogue::describe(typeIdOf(record)) +
                                    " was not delivered: " +
                                    (error ? error->localizedDescription.value_or("") : "no answer"));
        }
        return;
    }
    const bool keeps = AnswerRule::keeps(statusCode, record.isSavedEvent);
    if (sent.row != 0) {
        shared().noteChange(
            {sent.row, keeps ? std::optional(QueueFile::State::Refused) : std::nullopt},
            sent.retried, true);
    }
    const auto [logLevel, isEnabled] = ControllerState::locked(
        [](const ControllerState& state) { return std::pair(state.logLevel, state.isEnabled); });
    // Most answers end here, on the client's thread: delivered, and nobody reads them.
    if (!keeps && !AnswerRule::reads(typeIdOf(record), logLevel, isEnabled)) {
        return;
    }
    MainQueue::main().async([delivery, data = std::move(*data), response, keeps]() mutable {
        Ready& sent = delivery->ready;
        auto& saved = Event::savedEvents();
        const Event* before = saved.empty() ? nullptr : saved.back().get();
        NorvAnalytics::handleEventResponse(
            EventTable::context(sent.record.texts, sent.deviceUUID, std::move(sent.body),
                                sent.record.isSavedEvent),
            std::move(data), response, std::nullopt);
        if (keeps && sent.row != 0 && !saved.empty() && saved.back().get() != before) {
            shared().mapSavedRow(saved.back(), sent.row);
        }
    });
}

void DeliveryQueue::noteChange(QueueFile::Change change, bool wasRetried, bool answered) {
    bool wake = false;
    bool firstUnanswered = false;
    {
        std::lock_guard lock(mutex_);
        // The file was closed meanwhile: its rows are not ours to change any more.
        if (!persistent_) {
            return;
        }
        if (change.state == QueueFile::State::Unanswered) {
            firstUnanswered = unanswered_++ == 0;
        }
        if (wasRetried && retryRound_) {
            // An answer means the server is back: the rest of the round follows. An answer that
            // comes after its round ended starts nothing: the round's rows may still be on
            // their way.
            retries_ = answered ? kAllRetries : 0;
        }
        if (changes_.empty()) {
            changesSince_ = std::chrono::steady_clock::now();
        }
        changes_.push_back(change);
        // The first starts the thread's wait for the group; a full group is written at once.
        wake = (changes_.size() == 1 || changes_.size() >= kChangesPerCommit ||
                (wasRetried && answered)) &&
               wakeLocked();
    }
    if (wake) {
        wake_.notify_one();
    }
    if (auto* appeared = resendWork_.load(); appeared != nullptr && firstUnanswered) {
        appeared();
    }
}

void DeliveryQueue::mapSavedRow(const std::shared_ptr<Event>& event, std::int64_t row) {
    auto [entry, added] = savedRows_.try_emplace(event.get(), row, event);
    if (!added) {
        // An event gone from the saved list whose address was reused: its row goes.
        if (entry->second.second.expired()) {
            noteChange({entry->second.first, std::nullopt}, false, false);
        }
        entry->second = {row, event};
    }
}

void DeliveryQueue::savedEventResent(const Event* event) {
    const auto entry = savedRows_.find(event);
    if (entry == savedRows_.end()) {
        return;
    }
    const std::int64_t row = entry->second.first;
    savedRows_.erase(entry);
    noteChange({row, std::nullopt}, false, false);
}

bool DeliveryQueue::hasResendWork() const {
    std::lock_guard lock(mutex_);
    return persistent_ && unanswered_ > 0;
}

void DeliveryQueue::onResendWork(void (*appeared)()) { resendWork_ = appeared; }

void DeliveryQueue::resendTick() {
    std::vector<QueueFile::Change> gone;
    // Events the saved list dropped past its bound, or that the host removed.
    std::erase_if(savedRows_, [&](const auto& entry) {
        if (!entry.second.second.expired()) {
            return false;
        }
        gone.push_back({entry.second.first, std::nullopt});
        return true;
    });
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        if (!persistent_) {
            return;
        }
        changes_.insert(changes_.end(), gone.begin(), gone.end());
        tick_ = true;
        wake = wakeLocked();
    }
    if (wake) {
        wake_.notify_one();
    }
}

void DeliveryQueue::setPersistent(bool persistent) {
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        if (persistent_ == persistent) {
            return;
        }
        persistent_ = persistent;
        close_ = !persistent;
        wake = wakeLocked();
    }
    if (wake) {
        wake_.notify_one();
    }
    if (persistent) {
        recover();
    } else {
        // No thread to close it: nothing was opened, but an earlier process's file goes too.
        std::lock_guard files(fileMutex_);
        std::lock_guard lock(mutex_);
        if (!thread_) {
            close_ = false;
            QueueFile::remove(queuePath());
        }
    }
}

void DeliveryQueue::discardAll() {
    std::deque<EventRecord> discarded;
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        discarded.swap(waiting_);
        waitingBytes_ = 0;
        discard_ = persistent_;
        wake = discard_ && wakeLocked();
    }
    CollectionConsent::countDiscarded(discarded.size());
    if (wake) {
        wake_.notify_one();
    }
}

void DeliveryQueue::eraseWhileHeld(const std::function<void()>& erase) {
    std::deque<EventRecord> dropped;
    {
        std::lock_guard files(fileMutex_);
        closeFile(false);
        erase();
        std::lock_guard lock(mutex_);
        dropped.swap(waiting_);
        waitingBytes_ = 0;
    }
    if (!dropped.empty() && Diagnostics::isOn()) {
        Diagnostics::report(DiagnosticLevel::Info,
                            std::to_string(dropped.size()) +
                                " waiting events were dropped with the device's identity.");
    }
}

void DeliveryQueue::released(std::uint64_t generation, bool retried) {
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        if (generation != generation_) {
            return;
        }
        --inWindow_;
        retriedInFlight_ -= retried ? 1 : 0;
        // Woken when half the window is free, not for each answer.
        wake = (!waiting_.empty() || backlog_ > 0) && inWindow_ <= kWindow / 2 && wakeLocked();
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
    // Asleep is enough: asleep with work, it waits for half the window, which only the client
    // that called this can free.
    handedOver_.wait(lock, [this] {
        return !handingOver_ &&
               (!thread_ || (idle_ && changes_.empty()) || (!persistent_ && waiting_.empty()));
    });
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
    // The parent's connection and rows, left as they are (a turn of the parent's thread may
    // have been changing them): the child opens the file anew, as a process of its own.
    new (&queue.file_) std::unique_ptr<QueueFile>;
    new (&queue.backlogRows_) std::deque<BacklogRow>;
    new (&queue.path_) std::filesystem::path;
    queue.fileFailed_ = false;
    queue.backlogBytes_ = 0;
    queue.handedOverRow_ = 0;
    queue.retriedRow_ = 0;
    queue.changes_.clear();
    queue.backlog_ = 0;
    queue.unanswered_ = 0;
    queue.retries_ = 0;
    queue.retriedInFlight_ = 0;
    queue.retryRound_ = false;
    queue.inWindow_ = 0;
    ++queue.generation_;
    queue.idle_ = false;
    queue.handingOver_ = false;
    queue.dropping_ = false;
    // Their waiters were threads of the parent's.
    new (&queue.wake_) std::condition_variable;
    new (&queue.handedOver_) std::condition_variable;
    queue.mutex_.unlock();
    // Not taken before the fork: a turn holding it may wait for the HTTP client's lock, which
    // the client's own fork handler holds by then. The thread that held it is gone.
    new (&queue.fileMutex_) std::mutex;
}

}  // namespace NorvAnalytic
