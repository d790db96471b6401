#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "delivery/Outgoing.h"
#include "delivery/PendingChanges.h"
#include "delivery/PendingRows.h"
#include "delivery/QueueFile.h"
#include "delivery/RetryRound.h"

namespace NorvAnalytic {

class OwnerLock;

// The persistent queue: every accepted event is kept in the host's queue file from its hand-over
// until its answer, so that the next process sends what this one could not.
//
// What holds:
// - Each pending row of this process that is not with the client yet is in backlog_, oldest
//   first, with its event's flush ticket; rows are read back in that order, and a burst is
//   written down before anything is read back.
// - A row reference names the opening it was written in: a change for a row of an earlier
//   opening is dropped, since that file was deleted or reopened since.
// - What answers change is queued by settle() and written in group commits by the delivery
//   thread: with the next events, at 128 changes, 10 ms after the first, or before unanswered
//   rows are counted or read.
// - A write that fails writes nothing and loses nothing: its events go back to the caller to be
//   sent from memory within the window, its changes wait, and the file is tried again later.
// - No event recorded before a privacy fence is written, read back or kept in the file after it.
//
// Threads: norv-delivery does the file's I/O (opening, accept, readBack, commit, closing). The
// fences run on their caller's thread under the same I/O lock. settle(), tick(), recover() and
// the questions come from any thread and take only stateMutex_.
// Locks: ioMutex_ (held across the file's I/O), then stateMutex_; wake_ is called with neither.
class Journal {
public:
    enum class Settlement {
        // Answered, nothing to keep: the row goes.
        Delivered,
        // Refused and kept for resending: the row stays until the resend.
        Kept,
        // No answer at all: tried again once the network is back.
        Unanswered,
        // Cancelled at exit: left pending for the next process.
        Untouched,
    };
    struct Accepted {
        // To be sent now; the rest wait in the file.
        std::vector<Outgoing> now;
        // Not written: to be sent from memory.
        std::vector<Outgoing> unwritten;
        // Recorded before a fence: discarded, and by which.
        std::size_t discarded = 0;
        FenceKind discardedBy = FenceKind::ConsentWithdrawn;
    };

    // wake asks the delivery thread for a turn.
    explicit Journal(std::function<void()> wake);
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    // Any thread.
    void setWanted(bool wanted);
    bool wanted() const;
    // At initWithKey and when consent returns: the file may be opened, and the events of ended
    // processes go first. A flush after this waits for them.
    void recover();
    void settle(JournalRow row, Settlement settlement, bool retried);
    // The end of a retried row's try, answered or not.
    void retryEnded(JournalRow row);
    // Main queue, on each reachable tick of the resend timer: unanswered rows get a new try.
    void tick(std::size_t maxUnanswered, std::size_t maxUnansweredBytes);
    // Whether ticks have work here: unanswered rows wait for their next try.
    bool hasResendWork() const;
    // Whether events are written to the file now, rather than sent from memory.
    bool accepting() const;
    // Whether the file is open: no lock, for an event call's quick look.
    bool isOpen() const;
    // Whether a turn of the delivery thread has file work, with room free places in the window.
    bool needsTurn(std::size_t room) const;
    // Whether changes wait for their group commit.
    bool hasPendingChanges() const;
    // When the thread must wake for the file, if nothing else wakes it first.
    std::optional<std::chrono::steady_clock::time_point> dueAt() const;

    // norv-delivery.
    // Opens the file when it is wanted and allowed, closes it when not. What waited in a closed
    // file comes back, to be sent from memory.
    std::vector<Outgoing> reconcile();
    Accepted accept(std::vector<Outgoing> events, std::size_t room);
    std::vector<Outgoing> readBack(std::size_t room);
    // Writes the queued changes when due (always when forced).
    void commit(bool force);
    // How many events the file dropped past a bound, or lost to a failed read, since the last call.
    std::size_t takeLost();
    void setLimits(std::size_t maxEvents, std::size_t maxBytes);

    // The fences, on their caller's thread; they wait for the file. Consent withdrawn: this
    // process's rows are deleted and the file closed until recover(). Device forgotten: every
    // queue file of the data directory is erased. Returns how many events waiting in the file
    // were discarded.
    std::size_t fence(FenceKind kind);

    // In a forked child: the parent's file and locks are the parent's.
    void abandonInChild();

private:
    // The methods named ...Locked run with ioMutex_ held.
    bool openLocked();
    std::vector<Outgoing> closeLocked(bool turnedOff);
    // Under stateMutex_: the file is closed, and nothing of its opening is kept.
    void forgetOpeningLocked();
    // Deletes the queue file when no other live process uses it.
    void removeUnusedLocked();
    // After a failure: the file is let be for a while, and the host hears of it once (what names
    // the failed step; null when it was said already).
    void pauseLocked(const char* what);
    void resumeLocked();
    bool pausedLocked() const;
    // The next pending rows after the last one handed over, with their tickets.
    std::vector<Outgoing> readPendingLocked(std::size_t limit);
    std::vector<Outgoing> readRetriesLocked(std::size_t room);
    void trimBacklogLocked();
    void serviceTickLocked();
    void commitLocked(bool force);
    std::vector<QueueFile::Change> takeChanges(bool force);
    void giveBackChanges(std::vector<QueueFile::Change> changes);

    std::function<void()> wake_;

    // The file and what only its I/O touches.
    mutable std::mutex ioMutex_;
    std::unique_ptr<OwnerLock> owner_;
    std::unique_ptr<QueueFile> file_;
    std::filesystem::path path_;
    PendingRows backlog_;
    std::int64_t handedOverRow_ = 0;
    std::int64_t retriedRow_ = 0;
    bool reportedFailure_ = false;

    // What any thread may ask or change.
    mutable std::mutex stateMutex_;
    bool wanted_ = false;
    bool allowed_ = false;
    // Turned off and on again before the thread closed the file: it still closes it.
    bool reopen_ = false;
    // The current opening of the file; 0 while it is closed. Written with both locks held.
    std::uint64_t opening_ = 0;
    std::atomic<bool> open_{false};
    std::uint64_t openings_ = 0;
    PendingChanges changes_;
    std::size_t backlogCount_ = 0;
    RetryRound retries_;
    bool tick_ = false;
    std::size_t maxUnanswered_ = 0;
    std::size_t maxUnansweredBytes_ = 0;
    std::size_t maxEvents_ = 0;
    std::size_t maxBytes_ = 0;
    std::size_t lost_ = 0;
    // After a failed write, the file is let be until then.
    std::chrono::steady_clock::time_point writableAfter_;
    std::chrono::milliseconds pause_{0};
    // Held for a flush until the events recovered from ended processes have all ended.
    std::shared_ptr<const void> recoveryHold_;
};

}  // namespace NorvAnalytic
