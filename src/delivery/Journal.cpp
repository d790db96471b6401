#include "delivery/Journal.h"

#include <algorithm>
#include <string_view>
#include <system_error>

#include "delivery/OwnerLock.h"
#include "platform/Diagnostics.h"
#include "storage/DataDirectory.h"

namespace NorvAnalytic {

namespace {

using Clock = std::chrono::steady_clock;
using State = QueueFile::State;

constexpr std::size_t kReadBatch = 64;
// After a failure the file is let be for a second, then for twice as long each time, at most this.
constexpr std::chrono::milliseconds kFirstPause{1000};
constexpr std::chrono::milliseconds kLongestPause{30'000};

}  // namespace

Journal::Journal(std::function<void()> wake) : wake_(std::move(wake)) {}

Journal::~Journal() = default;

void Journal::setWanted(bool wanted) {
    {
        std::lock_guard lock(stateMutex_);
        if (wanted_ && wanted) {
            return;
        }
        wanted_ = wanted;
        // Off means off, even when on follows before the thread has looked: the file is closed
        // (and deleted when unused) and a new one opened.
        reopen_ = reopen_ || (!wanted && opening_ != 0);
    }
    if (!wanted) {
        // Off deletes the file, also one an earlier process left that this one never opened;
        // an open one is closed by the delivery thread, which sends from memory what it held.
        std::lock_guard io(ioMutex_);
        if (!file_) {
            removeUnusedLocked();
        }
    }
    wake_();
}

bool Journal::wanted() const {
    std::lock_guard lock(stateMutex_);
    return wanted_;
}

void Journal::recover() {
    {
        std::lock_guard lock(stateMutex_);
        allowed_ = true;
        if (!wanted_ || opening_ != 0) {
            return;
        }
        if (!recoveryHold_) {
            recoveryHold_ = std::make_shared<EventsInFlight::Ticket>(EventsInFlight::begin());
        }
        writableAfter_ = {};
    }
    wake_();
}

void Journal::settle(JournalRow row, Settlement settlement, bool retried) {
    // Most events have no row: the queue is off.
    if (!row) {
        return;
    }
    bool wake = false;
    {
        std::lock_guard lock(stateMutex_);
        if (!row || row.opening != opening_ || settlement == Settlement::Untouched) {
            return;
        }
        const bool answered = settlement != Settlement::Unanswered;
        const std::optional<State> state =
            settlement == Settlement::Delivered ? std::nullopt
                                                : std::optional(answered ? State::Refused : State::Unanswered);
        if (retried) {
            retries_.tryAnswered(answered);
        } else {
            retries_.firstSendEnded(answered);
        }
        // An answered try lets the rest of its round go at once.
        wake = changes_.add({{row.id, state}}) || (retried && answered);
    }
    if (wake) {
        wake_();
    }
}

void Journal::retryEnded(JournalRow row) {
    std::lock_guard lock(stateMutex_);
    if (row.opening == opening_) {
        retries_.tryEnded();
    }
}

void Journal::tick(std::size_t maxUnanswered, std::size_t maxUnansweredBytes) {
    {
        std::lock_guard lock(stateMutex_);
        if (opening_ == 0) {
            return;
        }
        tick_ = true;
        maxUnanswered_ = maxUnanswered;
        maxUnansweredBytes_ = maxUnansweredBytes;
    }
    wake_();
}

bool Journal::hasResendWork() const {
    std::lock_guard lock(stateMutex_);
    return opening_ != 0 && retries_.unanswered() > 0;
}

bool Journal::accepting() const {
    std::lock_guard lock(stateMutex_);
    return opening_ != 0 && Clock::now() >= writableAfter_;
}

bool Journal::isOpen() const { return open_.load(std::memory_order_relaxed); }

bool Journal::needsTurn(std::size_t room) const {
    std::lock_guard lock(stateMutex_);
    const bool want = wanted_ && allowed_;
    if (want != (opening_ != 0) || (reopen_ && opening_ != 0)) {
        return !want || reopen_ || Clock::now() >= writableAfter_;
    }
    return opening_ != 0 &&
           (changes_.full() || tick_ ||
            (room > 0 && (backlogCount_ > 0 || (retries_.allowance() > 0 && retries_.unanswered() > 0))));
}

bool Journal::hasPendingChanges() const {
    std::lock_guard lock(stateMutex_);
    return opening_ != 0 && !changes_.empty();
}

std::optional<Clock::time_point> Journal::dueAt() const {
    std::lock_guard lock(stateMutex_);
    std::optional<Clock::time_point> due;
    if (opening_ != 0 && !changes_.empty()) {
        due = std::max(changes_.dueAt(), writableAfter_);
    }
    if (wanted_ && allowed_ && opening_ == 0) {
        due = due ? std::min(*due, writableAfter_) : writableAfter_;
    }
    return due;
}

std::vector<Outgoing> Journal::reconcile() {
    std::lock_guard io(ioMutex_);
    bool want = false;
    bool turnedOff = false;
    {
        std::lock_guard lock(stateMutex_);
        want = wanted_ && allowed_;
        turnedOff = !wanted_ || std::exchange(reopen_, false);
        if (want && opening_ == 0 && Clock::now() < writableAfter_) {
            return {};
        }
    }
    std::vector<Outgoing> moved;
    if (file_ && (!want || turnedOff)) {
        moved = closeLocked(turnedOff);
    }
    if (want && !file_ && !openLocked()) {
        std::shared_ptr<const void> hold;
        std::lock_guard lock(stateMutex_);
        hold.swap(recoveryHold_);
    }
    return moved;
}

void Journal::removeUnusedLocked() {
    path_ = QueueFile::pathForMainBundle();
    if (!owner_ && std::filesystem::exists(path_)) {
        owner_ = OwnerLock::acquire(path_);
    }
    // Only when no other live process uses it.
    if (owner_ && owner_->use()) {
        if (owner_->useAlone()) {
            QueueFile::remove(path_);
        }
        owner_->stopUsing();
    }
}

bool Journal::openLocked() {
    path_ = QueueFile::pathForMainBundle();
    try {
        if (!DataDirectory::makePrivate(path_.parent_path())) {
            throw std::system_error(std::make_error_code(std::errc::permission_denied),
                                    "its directory cannot be made");
        }
        if (!owner_) {
            owner_ = OwnerLock::acquire(path_);
        }
        if (!owner_ || !owner_->use()) {
            throw std::system_error(std::make_error_code(std::errc::no_lock_available),
                                    "its lock file cannot be locked");
        }
        file_ = QueueFile::open(path_, *owner_);
        if (!file_) {
            owner_->stopUsing();
            pauseLocked(nullptr);
            return false;
        }
        const std::vector<std::int64_t> ids = file_->claimOrphans();
        const std::size_t unanswered = file_->count(State::Unanswered).events;
        std::lock_guard lock(stateMutex_);
        const std::uint64_t epoch = PrivacyEpoch::current();
        for (const std::int64_t id : ids) {
            backlog_.push({id, 0, EventsInFlight::begin(), epoch, recoveryHold_});
        }
        recoveryHold_.reset();
        opening_ = ++openings_;
        open_.store(true, std::memory_order_relaxed);
        backlogCount_ = backlog_.size();
        retries_.reset();
        retries_.counted(unanswered);
        handedOverRow_ = 0;
        retriedRow_ = 0;
        return true;
    } catch (const std::system_error&) {
        if (file_) {
            file_.reset();
            owner_->stopUsing();
        }
        backlog_.clear();
        pauseLocked("opened");
        return false;
    }
}

std::vector<Outgoing> Journal::closeLocked(bool turnedOff) {
    std::vector<Outgoing> moved;
    if (turnedOff) {
        // What waited in the file goes from memory: turning the queue off loses none of it.
        try {
            while (!backlog_.empty()) {
                std::vector<Outgoing> rows = readPendingLocked(kReadBatch);
                if (rows.empty()) {
                    break;
                }
                std::ranges::move(rows, std::back_inserter(moved));
            }
        } catch (const std::system_error&) {
            std::lock_guard lock(stateMutex_);
            lost_ += backlog_.size();
        }
        for (Outgoing& event : moved) {
            event.row = {};
        }
        // The file goes only when no other live process uses it; else this process's rows do.
        if (owner_->useAlone()) {
            file_.reset();
            QueueFile::remove(path_);
        } else {
            file_->clear();
        }
    }
    file_.reset();
    owner_->stopUsing();
    backlog_.clear();
    std::lock_guard lock(stateMutex_);
    forgetOpeningLocked();
    return moved;
}

void Journal::forgetOpeningLocked() {
    opening_ = 0;
    open_.store(false, std::memory_order_relaxed);
    changes_.clear();
    backlogCount_ = 0;
    retries_.reset();
    tick_ = false;
}

void Journal::pauseLocked(const char* what) {
    std::lock_guard lock(stateMutex_);
    pause_ = pause_.count() == 0 ? kFirstPause : std::min(pause_ * 2, kLongestPause);
    writableAfter_ = Clock::now() + pause_;
    if (what != nullptr && !reportedFailure_) {
        // Said once per outage: the events go from memory meanwhile, none is lost.
        reportedFailure_ = true;
        Diagnostics::report(DiagnosticLevel::Error,
                            "The event queue file " + path_.string() + " could not be " + what +
                                ": events are sent from memory until it can be.");
    }
}

void Journal::resumeLocked() {
    std::lock_guard lock(stateMutex_);
    pause_ = std::chrono::milliseconds(0);
    reportedFailure_ = false;
}

bool Journal::pausedLocked() const {
    std::lock_guard lock(stateMutex_);
    return Clock::now() < writableAfter_;
}

std::vector<Outgoing> Journal::readPendingLocked(std::size_t limit) {
    std::vector<Outgoing> read;
    std::vector<QueueFile::Row> rows = file_->read(State::Pending, handedOverRow_, limit);
    if (rows.empty()) {
        // Erased under us by another process's forget: those events are gone with the identity.
        backlog_.clear();
        return read;
    }
    for (QueueFile::Row& row : rows) {
        handedOverRow_ = row.id;
        if (std::optional<PendingRows::Row> pending = backlog_.take(row.id)) {
            read.push_back(Outgoing::fromRow(row, {opening_, row.id}, std::move(pending->ticket),
                                             pending->epoch, std::move(pending->hold), false));
        } else {
            read.push_back(Outgoing::fromRow(row, {opening_, row.id}, EventsInFlight::begin(),
                                             PrivacyEpoch::current(), nullptr, false));
        }
    }
    return read;
}

Journal::Accepted Journal::accept(std::vector<Outgoing> events, std::size_t room) {
    Accepted accepted;
    std::lock_guard io(ioMutex_);
    // Recorded before a fence that cleared or erased the file: nothing of it is written.
    accepted.discarded = std::erase_if(events, [&](const Outgoing& event) {
        if (PrivacyEpoch::isCurrent(event.record.epoch)) {
            return false;
        }
        accepted.discardedBy = PrivacyEpoch::fenceSince(event.record.epoch);
        return true;
    });
    if (!file_ || events.empty() || pausedLocked()) {
        accepted.unwritten = std::move(events);
        return accepted;
    }
    std::vector<QueueFile::Row> rows;
    rows.reserve(events.size());
    for (const Outgoing& event : events) {
        rows.push_back({0, event.record.destination->url, event.body,
                        EventTable::encode(event.record.texts), event.record.isSavedEvent,
                        std::string(event.record.key())});
    }
    std::vector<QueueFile::Change> changes = takeChanges(true);
    std::vector<std::int64_t> ids;
    if (!file_->write(rows, ids, changes)) {
        giveBackChanges(std::move(changes));
        pauseLocked("written");
        accepted.unwritten = std::move(events);
        return accepted;
    }
    resumeLocked();
    for (std::size_t index = 0; index < events.size(); ++index) {
        Outgoing& event = events[index];
        if (backlog_.empty() && accepted.now.size() < room) {
            event.row = {opening_, ids[index]};
            handedOverRow_ = ids[index];
            accepted.now.push_back(std::move(event));
        } else {
            backlog_.push({ids[index], rows[index].body.size() + rows[index].texts.size(),
                           std::move(event.record.ticket), event.record.epoch, std::move(event.hold)});
        }
    }
    trimBacklogLocked();
    return accepted;
}

void Journal::trimBacklogLocked() {
    std::lock_guard lock(stateMutex_);
    std::vector<QueueFile::Change> oldest;
    for (const std::int64_t id : backlog_.trim(maxEvents_, maxBytes_)) {
        oldest.push_back({id, std::nullopt});
    }
    backlogCount_ = backlog_.size();
    lost_ += oldest.size();
    // Deleted with the next group commit; a kill before it leaves them for the next process.
    if (!oldest.empty()) {
        changes_.add(oldest);
    }
}

std::vector<Outgoing> Journal::readRetriesLocked(std::size_t room) {
    std::vector<Outgoing> read;
    while (read.size() < room) {
        std::size_t allowance = 0;
        {
            std::lock_guard lock(stateMutex_);
            allowance = retries_.allowance();
        }
        if (allowance == 0) {
            break;
        }
        // An answered row must not be tried again: what the answers changed goes first.
        commitLocked(true);
        std::vector<QueueFile::Row> rows = file_->read(
            State::Unanswered, retriedRow_, std::min({room - read.size(), allowance, kReadBatch}));
        std::lock_guard lock(stateMutex_);
        if (rows.empty()) {
            // The round is over; the next one starts from the oldest again.
            retriedRow_ = 0;
            retries_.finish();
            break;
        }
        for (QueueFile::Row& row : rows) {
            retriedRow_ = row.id;
            retries_.tried();
            read.push_back(Outgoing::fromRow(row, {opening_, row.id}, EventsInFlight::begin(),
                                             PrivacyEpoch::current(), nullptr, true));
        }
    }
    return read;
}

std::vector<Outgoing> Journal::readBack(std::size_t room) {
    std::vector<Outgoing> read;
    std::lock_guard io(ioMutex_);
    if (!file_ || room == 0) {
        return read;
    }
    try {
        serviceTickLocked();
        read = readRetriesLocked(room);
        while (read.size() < room && !backlog_.empty()) {
            std::vector<Outgoing> rows = readPendingLocked(std::min(room - read.size(), kReadBatch));
            if (rows.empty()) {
                break;
            }
            std::ranges::move(rows, std::back_inserter(read));
        }
    } catch (const std::system_error&) {
        // The rows wait in the file; it is tried again after a pause.
        pauseLocked("read");
    }
    std::lock_guard lock(stateMutex_);
    backlogCount_ = backlog_.size();
    return read;
}

void Journal::serviceTickLocked() {
    std::size_t maxUnanswered = 0;
    std::size_t maxUnansweredBytes = 0;
    {
        std::lock_guard lock(stateMutex_);
        if (!std::exchange(tick_, false)) {
            return;
        }
        maxUnanswered = maxUnanswered_;
        maxUnansweredBytes = maxUnansweredBytes_;
    }
    // Counted after what the answers changed is written, so an answered row is not counted.
    commitLocked(true);
    const std::size_t trimmed = file_->trim(State::Unanswered, maxUnanswered, maxUnansweredBytes);
    const std::size_t unanswered = file_->count(State::Unanswered).events;
    std::lock_guard lock(stateMutex_);
    lost_ += trimmed;
    retries_.counted(unanswered);
    retries_.tick();
}

void Journal::commit(bool force) {
    std::lock_guard io(ioMutex_);
    if (file_) {
        commitLocked(force);
    }
}

void Journal::commitLocked(bool force) {
    if (pausedLocked()) {
        return;
    }
    std::vector<QueueFile::Change> changes = takeChanges(force);
    if (changes.empty()) {
        return;
    }
    std::vector<std::int64_t> none;
    if (file_->write({}, none, changes)) {
        resumeLocked();
    } else {
        giveBackChanges(std::move(changes));
        pauseLocked("written");
    }
}

std::vector<QueueFile::Change> Journal::takeChanges(bool force) {
    std::lock_guard lock(stateMutex_);
    return changes_.take(force);
}

void Journal::giveBackChanges(std::vector<QueueFile::Change> changes) {
    std::lock_guard lock(stateMutex_);
    changes_.giveBack(std::move(changes));
}

std::size_t Journal::takeLost() {
    std::lock_guard lock(stateMutex_);
    return std::exchange(lost_, 0);
}

void Journal::setLimits(std::size_t maxEvents, std::size_t maxBytes) {
    std::lock_guard lock(stateMutex_);
    maxEvents_ = maxEvents;
    maxBytes_ = maxBytes;
}

std::size_t Journal::fence(FenceKind kind) {
    std::lock_guard io(ioMutex_);
    const std::size_t discarded = backlog_.size();
    if (file_) {
        if (kind == FenceKind::ConsentWithdrawn && !file_->clear()) {
            Diagnostics::report(DiagnosticLevel::Error,
                                "The event queue file " + path_.string() +
                                    " refused to discard this process's events.");
        }
        closeLocked(false);
    }
    backlog_.clear();
    {
        std::lock_guard lock(stateMutex_);
        // Until consent returns the file is neither read nor written.
        allowed_ = allowed_ && kind == FenceKind::DeviceForgotten;
        recoveryHold_.reset();
    }
    if (kind == FenceKind::DeviceForgotten) {
        QueueFile::eraseAll(DataDirectory::path());
    }
    return discarded;
}

void Journal::abandonInChild() {
    // The parent may have been inside the file on another thread: nothing of it is touched.
    new (&ioMutex_) std::mutex;
    new (&stateMutex_) std::mutex;
    if (file_) {
        file_->abandon();
        static_cast<void>(file_.release());
    }
    if (owner_) {
        owner_->abandon();
        static_cast<void>(owner_.release());
    }
    backlog_.clear();
    forgetOpeningLocked();
    recoveryHold_.reset();
}

}  // namespace NorvAnalytic
