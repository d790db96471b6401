#pragma once

#include <NorvAnalytic/HttpClient.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "delivery/EventRecord.h"
#include "delivery/QueueFile.h"

namespace NorvAnalytic {

// The one queue between the host's event calls and the HTTP client. A call only adds its record
// here; the thread "norv-delivery" builds each body and hands it to the client, at most kWindow
// events at a time between the hand-over and the end of their answer's handling, so a slow main
// queue or a slow server holds back the hand-over instead of piling up requests or answers.
// The waiting records are bounded by count and bytes: beyond either, the oldest is dropped,
// counted and reported here, the one place that does so.
class DeliveryQueue {
public:
    // Sixty-four in curl, the rest ready in the client's own list for when those end.
    static constexpr std::size_t kWindow = 256;
    // Room for a long outage of a busy host at a few tens of megabytes.
    static constexpr std::size_t kDefaultMaxEvents = 100'000;
    static constexpr std::size_t kDefaultMaxBytes = 32 << 20;

    static DeliveryQueue& shared();

    // Any thread; never waits for the network or for a lock that I/O holds.
    void submit(EventRecord record);
    void setLimits(std::size_t maxEvents, std::size_t maxBytes);
    std::uint64_t droppedCount() const;

    // With the queue on, records are written to the host's queue file before they are sent,
    // and the file's events of ended processes are sent first. Off closes and deletes it.
    void setPersistent(bool persistent);
    // Consent withdrawn: the waiting records and this process's rows of the file are discarded.
    void discardAll();
    // Holds the hand-over while f runs (it may erase the files), then discards what waited.
    // Not on the main queue's thread of a host that answers there: it waits for our thread.
    void eraseWhileHeld(const std::function<void()>& f);
    // Main queue, on each reachable tick of the resend timer: unanswered rows get a new try,
    // and kept rows whose events left the saved list are deleted.
    void resendTick();
    // Any thread: the file holds unanswered rows, which the resend ticks retry.
    bool hasResendWork() const;
    // Called (any thread, never under the queue's lock; perhaps under the file lock) when
    // unanswered rows appear where there were none. Set once, before the first event.
    void onResendWork(void (*appeared)());
    // Main queue: the saved event was resent, so its row goes.
    void savedEventResent(const Event* event);
    // At initWithKey and when the queue is turned on: opens the file, so that the events of
    // ended processes go first and a flush waits for them. Does disk I/O on the caller's thread.
    void recover();
    // Returns once the hand-over has nothing to do until an answer or a call wakes it: after a
    // burst, every event the window has room for is in the client, and what the answers changed
    // is in the file. For tests that read what the client got.
    void waitUntilHandedOver();

    DeliveryQueue(const DeliveryQueue&) = delete;
    DeliveryQueue& operator=(const DeliveryQueue&) = delete;

private:
    class Delivery;

    // What one turn of the thread takes from under the lock.
    struct Turn {
        std::vector<EventRecord> records;
        std::vector<QueueFile::Change> changes;
        std::size_t room = 0;
        bool persistent = false;
        bool close = false;
        bool discard = false;
        bool tick = false;
        bool moreWaiting = false;
    };
    // A row written but not handed over: its size against the bound and a flush's place.
    struct BacklogRow {
        std::int64_t id;
        std::size_t bytes;
        EventsInFlight::Ticket ticket;
    };
    // An event ready for the client: its body made, and its row when it has one.
    struct Ready {
        EventRecord record;
        std::string body;
        std::string deviceUUID;
        std::int64_t row = 0;
        bool retried = false;
    };

    DeliveryQueue();
    void startLocked();
    void deliverForever();
    bool hasWorkLocked() const;
    // True when the thread slept and is now to be notified; it is marked awake at once.
    bool wakeLocked();
    Turn takeLocked();
    // The thread's work of one turn, under fileMutex_; returns how much room it used.
    std::size_t run(Turn& turn);
    std::vector<Ready> build(std::vector<EventRecord>& records);
    std::size_t persist(Turn& turn, std::vector<Ready>& ready);
    std::size_t readBack(std::size_t room);
    static Ready readyFrom(const QueueFile::Row& row, EventsInFlight::Ticket ticket, bool retried);
    void trimBacklog();
    bool openFile();
    void closeFile(bool remove);
    static void prepareClient();
    void mapSavedRow(const std::shared_ptr<Event>& event, std::int64_t row);
    void handOver(Ready ready) noexcept;
    void noteChange(QueueFile::Change change, bool wasRetried, bool answered);
    static void answered(const std::shared_ptr<Delivery>& delivery, std::optional<std::string> data,
                         std::optional<HttpResponse> response, std::optional<Error> error);
    void released(std::uint64_t generation, bool retried);
    // Counts events dropped by a bound, ours or the client's; returns the burst's one warning.
    std::string countDroppedLocked(std::size_t count);
    void report(const std::string& warning);

    static void beforeFork();
    static void afterForkInParent();
    static void afterForkInChild();

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable handedOver_;
    std::deque<EventRecord> waiting_;
    std::size_t waitingBytes_ = 0;
    std::size_t maxEvents_ = kDefaultMaxEvents;
    std::size_t maxBytes_ = kDefaultMaxBytes;
    std::size_t inWindow_ = 0;
    std::uint64_t dropped_ = 0;
    bool dropping_ = false;
    // The thread sleeps and nobody has woken it yet.
    bool idle_ = false;
    bool handingOver_ = false;
    bool stopping_ = false;
    std::optional<std::thread> thread_;
    // Changes at a fork: what the child inherited of the parent's window frees nothing.
    std::uint64_t generation_ = 0;

    // The queue file. Wanted, and what the answers changed of its rows, under mutex_.
    bool persistent_ = false;
    bool close_ = false;
    bool discard_ = false;
    bool tick_ = false;
    std::vector<QueueFile::Change> changes_;
    std::chrono::steady_clock::time_point changesSince_;
    // Rows in the file not handed over yet, and how many unanswered rows a turn may retry.
    std::size_t backlog_ = 0;
    std::size_t retries_ = 0;
    std::size_t unanswered_ = 0;
    std::size_t retriedInFlight_ = 0;
    // From a tick's first try until a read finds no unanswered row left.
    bool retryRound_ = false;
    // Held by the thread for a turn and by an erasure: lock order fileMutex_, then mutex_.
    std::mutex fileMutex_;
    // The thread's own, under fileMutex_: the open file, and a flush's place for each row
    // not handed over yet, oldest first.
    std::unique_ptr<QueueFile> file_;
    std::filesystem::path path_;
    bool fileFailed_ = false;
    std::deque<BacklogRow> backlogRows_;
    std::size_t backlogBytes_ = 0;
    std::int64_t handedOverRow_ = 0;
    std::int64_t retriedRow_ = 0;
    std::atomic<void (*)()> resendWork_{nullptr};
    // Main queue only: the row of each saved event that has one.
    std::unordered_map<const Event*, std::pair<std::int64_t, std::weak_ptr<Event>>> savedRows_;
};

}  // namespace NorvAnalytic
