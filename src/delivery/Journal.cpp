#include "delivery/Journal.h"

#include <NorvAnalytic/Bundle.h>

#include <algorithm>
#include <limits>
#include <string_view>
#include <system_error>

#include "delivery/OwnerLock.h"
#include "platform/Diagnostics.h"
#include "storage/DataDirectory.h"

namespace NorvAnalytic {

namespace {

using Clock = std::chrono::steady_clock;
using State = QueueFile::State;

constexpr std::size_t kChangesPerCommit = 128;
constexpr std::chrono::milliseconds kCommitDelay{10};
constexpr std::size_t kReadBatch = 64;
// A retry round that got an answer sends every unanswered row.
constexpr std::size_t kAllRetries = std::numeric_limits<std::size_t>::max();
// After a failure the file is let be for a second, then for twice as long each time, at most this.
constexpr std::chrono::milliseconds kFirstPause{1000};
constexpr std::chrono::milliseconds kLongestPause{30'000};

// The host's queue file, named by its bundle identifier.
std::filesystem::path queuePath() {
    const std::shared_ptr<const Bundle> bundle = Bundle::mainBundle();
    return QueueFile::pathFor(bundle ? bundle->bundleIdentifier() : std::string());
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

}  // namespace

Journal::Journal(std::function<void()> wake) : wake_(std::move(wake)) {}

Journal::~Journal() = default;

void Journal::setWanted(bool wanted) {
    {
        std::lock_guard lock(stateMutex_);
        if (wanted_ == wanted && wanted) {
            return;
        }
        wanted_ = wanted;
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

void Journal::removeUnusedLocked() {
    path_ = queuePath();
    if (!owner_ && std::filesystem::exists(path_)) {
        owner_ = OwnerLock::acquire(path_);
    }
    if (owner_ && owner_->use()) {
        // Only when no other live process uses it.
        if (owner_->useAlone()) {
            QueueFile::remove(path_);
        }
        owner_->stopUsing();
    }
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
    bool wake = false;
    {
        std::lock_guard lock(stateMutex_);
        if (!row || row.opening != opening_ || settlement == Settlement::Untouched) {
            return;
        }
        const bool answered = settlement != Settlement::Unanswered;
        if (settlement == Settlement::Delivered) {
            changes_.push_back({row.id, std::nullopt});
        } else {
            changes_.push_back({row.id, answered ? State::Refused : State::Unanswered});
        }
        unanswered_ += answered ? 0 : 1;
        if (retried && retryRound_) {
            // An answer means the server is back: the rest of the round follows. An answer that
            // comes after its round ended starts nothing: the round's rows may still be on their way.
            retries_ = answered ? kAllRetries : 0;
        }
        if (changes_.size() == 1) {
            changesSince_ = Clock::now();
        }
        // The first starts the thread's wait for the group; a full group is written at once.
        wake = changes_.size() == 1 || changes_.size() >= kChangesPerCommit || (retried && answered);
    }
    if (wake) {
        wake_();
    }
}

void Journal::retryEnded(JournalRow row) {
    std::lock_guard lock(stateMutex_);
    if (row.opening == opening_ && retriesInFlight_ > 0) {
        --retriesInFlight_;
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
    return opening_ != 0 && unanswered_ > 0;
}

bool Journal::accepting() const {
    std::lock_guard lock(stateMutex_);
    return opening_ != 0 && Clock::now() >= writableAfter_;
}

bool Journal::isOpen() const { return open_.load(std::memory_order_relaxed); }

bool Journal::needsTurn(std::size_t room) const {
    std::lock_guard lock(stateMutex_);
    const bool want = wanted_ && allowed_;
    if (want && opening_ == 0) {
        return Clock::now() >= writableAfter_;
    }
    if (!want && opening_ != 0) {
        return true;
    }
    if (opening_ == 0) {
        return false;
    }
    return changes_.size() >= kChangesPerCommit || tick_ ||
           (room > 0 && (backlogCount_ > 0 || (retries_ > 0 && unanswered_ > 0)));
}

bool Journal::hasPendingChanges() const {
    std::lock_guard lock(stateMutex_);
    return opening_ != 0 && !changes_.empty();
}

std::optional<Clock::time_point> Journal::dueAt() const {
    std::lock_guard lock(stateMutex_);
    std::optional<Clock::time_point> due;
    if (opening_ != 0 && !changes_.empty()) {
        due = std::max(changesSince_ + kCommitDelay, writableAfter_);
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
        turnedOff = !wanted_;
        if (want && opening_ == 0 && Clock::now() < writableAfter_) {
            return {};
        }
    }
    std::vector<Outgoing> moved;
    if (!want && file_) {
        moved = closeLocked(turnedOff);
    }
    if (want && !file_ && !openLocked()) {
        std::shared_ptr<const void> hold;
        std::lock_guard lock(stateMutex_);
        hold.swap(recoveryHold_);
    }
    return moved;
}

bool Journal::openLocked() {
    path_ = queuePath();
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
        std::lock_guard lock(stateMutex_);
        const std::uint64_t epoch = PrivacyEpoch::current();
        for (const std::int64_t id : ids) {
            backlog_.push_back({id, 0, EventsInFlight::begin(), epoch, recoveryHold_});
        }
        recoveryHold_.reset();
        opening_ = ++openings_;
        open_.store(true, std::memory_order_relaxed);
        backlogCount_ = backlog_.size();
        unanswered_ = file_->count(State::Unanswered).events;
        handedOverRow_ = 0;
        retriedRow_ = 0;
        return true;
    } catch (const std::system_error& error) {
        if (file_) {
            file_.reset();
            owner_->stopUsing();
        }
        backlog_.clear();
        backlogBytes_ = 0;
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
    backlogBytes_ = 0;
    std::lock_guard lock(stateMutex_);
    opening_ = 0;
    open_.store(false, std::memory_order_relaxed);
    changes_.clear();
    backlogCount_ = 0;
    unanswered_ = 0;
    retries_ = 0;
    retriesInFlight_ = 0;
    retryRound_ = false;
    tick_ = false;
    return moved;
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

Outgoing Journal::outgoingFrom(QueueFile::Row& row, EventsInFlight::Ticket ticket,
                               std::uint64_t epoch, std::shared_ptr<const void> hold,
                               bool retried) const {
    // Texts a later version wrote under names this one does not know read as none.
    EventRecord record{EventTable::decode(row.texts).value_or(EventTexts{}),
                       std::make_shared<const Destination>(Destination{std::nullopt, row.url}),
                       std::move(ticket), row.isSavedEvent, epoch, std::move(row.eventId)};
    std::string uuid = deviceUUIDIn(row.body);
    return {std::move(record), std::move(row.body), std::move(uuid), {opening_, row.id}, retried,
            std::move(hold)};
}

std::vector<Outgoing> Journal::readPendingLocked(std::size_t limit) {
    std::vector<Outgoing> read;
    std::vector<QueueFile::Row> rows = file_->read(State::Pending, handedOverRow_, limit);
    if (rows.empty()) {
        // Erased under us by another process's forget: those events are gone with the identity.
        backlog_.clear();
        backlogBytes_ = 0;
        return read;
    }
    for (QueueFile::Row& row : rows) {
        while (!backlog_.empty() && backlog_.front().id < row.id) {
            backlogBytes_ -= backlog_.front().bytes;
            backlog_.pop_front();
        }
        handedOverRow_ = row.id;
        if (backlog_.empty() || backlog_.front().id != row.id) {
            read.push_back(outgoingFrom(row, EventsInFlight::begin(), PrivacyEpoch::current(),
                                        nullptr, false));
            continue;
        }
        BacklogRow& entry = backlog_.front();
        backlogBytes_ -= entry.bytes;
        read.push_back(outgoingFrom(row, std::move(entry.ticket), entry.epoch,
                                    std::move(entry.hold), false));
        backlog_.pop_front();
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
    if (!file_ || events.empty() || Clock::now() < writableAfterLocked()) {
        accepted.unwritten = std::move(events);
        return accepted;
    }
    std::vector<QueueFile::Row> rows;
    rows.reserve(events.size());
    for (const Outgoing& event : events) {
        rows.push_back({0, event.record.destination->url, event.body,
                        EventTable::encode(event.record.texts), event.record.isSavedEvent,
                        event.record.eventId});
    }
    std::vector<QueueFile::Change> changes = takeChanges(true);
    std::vector<std::int64_t> ids;
    if (!file_->write(rows, ids, changes)) {
        returnChanges(std::move(changes));
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
            const std::size_t bytes = rows[index].body.size() + rows[index].texts.size();
            backlogBytes_ += bytes;
            backlog_.push_back({ids[index], bytes, std::move(event.record.ticket),
                                event.record.epoch, std::move(event.hold)});
        }
    }
    trimBacklogLocked();
    return accepted;
}

void Journal::trimBacklogLocked() {
    std::vector<QueueFile::Change> oldest;
    std::size_t maxEvents = 0;
    std::size_t maxBytes = 0;
    {
        std::lock_guard lock(stateMutex_);
        maxEvents = maxEvents_;
        maxBytes = maxBytes_;
    }
    while (backlog_.size() > maxEvents || backlogBytes_ > maxBytes) {
        oldest.push_back({backlog_.front().id, std::nullopt});
        backlogBytes_ -= backlog_.front().bytes;
        backlog_.pop_front();
    }
    std::lock_guard lock(stateMutex_);
    backlogCount_ = backlog_.size();
    if (oldest.empty()) {
        return;
    }
    lost_ += oldest.size();
    // Deleted with the next group commit; a kill before it leaves them for the next process.
    if (changes_.empty()) {
        changesSince_ = Clock::now();
    }
    changes_.insert(changes_.end(), oldest.begin(), oldest.end());
}

std::vector<Outgoing> Journal::readBack(std::size_t room) {
    std::vector<Outgoing> read;
    std::lock_guard io(ioMutex_);
    if (!file_ || room == 0) {
        return read;
    }
    try {
        serviceTickLocked();
        while (read.size() < room) {
            std::size_t retries = 0;
            {
                std::lock_guard lock(stateMutex_);
                retries = retries_;
            }
            if (retries == 0) {
                break;
            }
            // An answered row must not be tried again: what the answers changed goes first.
            commitLocked(true);
            std::vector<QueueFile::Row> rows =
                file_->read(State::Unanswered, retriedRow_,
                            std::min({room - read.size(), retries, kReadBatch}));
            std::lock_guard lock(stateMutex_);
            if (rows.empty()) {
                // The round is over; the next one starts from the oldest again.
                retriedRow_ = 0;
                retries_ = 0;
                retryRound_ = false;
                break;
            }
            for (QueueFile::Row& row : rows) {
                retriedRow_ = row.id;
                retries_ -= retries_ == kAllRetries ? 0 : 1;
                ++retriesInFlight_;
                read.push_back(
                    outgoingFrom(row, EventsInFlight::begin(), PrivacyEpoch::current(), nullptr, true));
            }
        }
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
    unanswered_ = unanswered;
    // A row still on its way from the last round is not tried twice; one try goes first, and
    // the rest follow once it has an answer.
    if (unanswered_ > 0 && retries_ == 0 && retriesInFlight_ == 0) {
        retryRound_ = true;
        retries_ = 1;
    }
}

void Journal::commit(bool force) {
    std::lock_guard io(ioMutex_);
    if (file_) {
        commitLocked(force);
    }
}

void Journal::commitLocked(bool force) {
    if (Clock::now() < writableAfterLocked()) {
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
        returnChanges(std::move(changes));
        pauseLocked("written");
    }
}

Clock::time_point Journal::writableAfterLocked() const {
    std::lock_guard lock(stateMutex_);
    return writableAfter_;
}

std::vector<QueueFile::Change> Journal::takeChanges(bool force) {
    std::vector<QueueFile::Change> taken;
    std::lock_guard lock(stateMutex_);
    if (force || changes_.size() >= kChangesPerCommit || Clock::now() - changesSince_ >= kCommitDelay) {
        taken.swap(changes_);
    }
    return taken;
}

void Journal::returnChanges(std::vector<QueueFile::Change> changes) {
    std::lock_guard lock(stateMutex_);
    changes.insert(changes.end(), changes_.begin(), changes_.end());
    changes_.swap(changes);
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
    backlogBytes_ = 0;
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
    backlogBytes_ = 0;
    opening_ = 0;
    open_.store(false, std::memory_order_relaxed);
    changes_.clear();
    backlogCount_ = 0;
    unanswered_ = 0;
    retries_ = 0;
    retriesInFlight_ = 0;
    retryRound_ = false;
    tick_ = false;
    recoveryHold_.reset();
}

}  // namespace NorvAnalytic
