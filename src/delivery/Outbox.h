#pragma once

#include <NorvAnalytic/HttpClient.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "delivery/DeviceFactsSource.h"
#include "delivery/Outgoing.h"
#include "delivery/Journal.h"
#include "delivery/SentEvent.h"

namespace NorvAnalytic {

// The one queue between the host's event calls and the HTTP client. A call only adds its record
// here; the thread "norv-delivery" builds each body and hands it to the client, at most kWindow
// events at a time between the hand-over and the end of their answer's handling, so a slow main
// queue or a slow server holds back the hand-over instead of piling up requests or answers.
//
// What holds:
// - Waiting records and built events waiting for room are bounded together by count and bytes:
//   beyond either the oldest is dropped, counted and reported here, the one place that does so.
// - inWindow_ counts the places a turn reserved plus the SentEvents alive; never above kWindow.
// - No event recorded before a privacy fence is built or handed to the client once fence()
//   has returned: the fence empties the queues and waits for a turn that took events before it
//   to get past its build and its hand-over (touching_), and each of those re-checks the epoch.
// - With the persistent queue, events go through the journal; the outbox knows only that it
//   writes, reads back and forgets them.
//
// Threads: submit(), the settings and fence() from any thread; turns on norv-delivery;
// completions on the client's thread. Locks: mutex_ guards everything below it and is never held
// across a build, the journal's I/O, the client's send or a completion; it may take the journal's
// state lock inside it, never the reverse.
class Outbox {
public:
    // Up to sixty-four in curl, the rest ready in the client's own list for when those end.
    static constexpr std::size_t kWindow = 256;
    // Room for a long outage of a busy host at a few tens of megabytes.
    static constexpr std::size_t kDefaultMaxEvents = 100'000;
    static constexpr std::size_t kDefaultMaxBytes = 32 << 20;

    using Completion = std::function<void(std::shared_ptr<SentEvent> sent,
                                          std::optional<std::string> data,
                                          std::optional<HttpResponse> response,
                                          std::optional<Error> error)>;
    // What the outbox calls above itself, handed in once by the layer that owns the events.
    struct Connections {
        DeviceFactsSource* deviceFacts = nullptr;
        // An answer (or a failure) of an event of the current privacy generation, on the
        // client's thread. Dropped requests are counted here and never reach it.
        Completion answered;
        // Events a privacy fence discarded, wherever they were.
        std::function<void(FenceKind kind, std::uint64_t count)> discarded;
    };

    static Outbox& shared();
    void connect(Connections connections);
    Journal& journal() { return journal_; }

    // Any thread; never waits for the network or for a lock that I/O holds.
    void submit(EventRecord record);
    void setLimits(std::size_t maxEvents, std::size_t maxBytes);
    std::uint64_t droppedCount() const;
    void setPersistent(bool persistent);
    // At initWithKey and when consent returns: the queue file's events of ended processes go first.
    void recover();
    // Consent withdrawn or device forgotten: when this returns, no event recorded before it is
    // built, handed over, written or read back, and the client has cancelled what it had not
    // written to the wire. Waits for the file (and for a turn's build and hand-over).
    void fence(FenceKind kind);
    // Returns once the hand-over has nothing to do until an answer or a call wakes it. For tests
    // that read what the client got.
    void waitUntilHandedOver();

    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

private:
    friend class SentEvent;

    struct Turn {
        std::vector<EventRecord> records;
        std::vector<Outgoing> ready;
        // Places reserved in the window for this turn.
        std::size_t room = 0;
        bool moreWaiting = false;
        bool last = false;
    };

    Outbox();
    void ensureThreadLocked();
    void wake();
    bool wakeLocked();
    bool hasWorkLocked() const;
    Turn takeLocked(bool last);
    void deliverForever();
    // The turn's work, outside the lock; returns how many events it handed over.
    std::size_t run(Turn& turn);
    std::vector<Outgoing> build(std::vector<EventRecord>& records);
    // Keeps the events of the current privacy generation; counts the others as discarded.
    void dropFenced(std::vector<Outgoing>& events);
    std::size_t handOver(std::vector<Outgoing>& events);
    void handOver(Outgoing event, HttpClient& client) noexcept;
    void answered(std::shared_ptr<SentEvent>& sent, std::optional<std::string> data,
                  std::optional<HttpResponse> response, std::optional<Error> error);
    void released(std::uint64_t generation);
    void setTouching(bool touching);
    // What a bound dropped, let go of (its tickets take a lock of their own), counted and said
    // outside the lock.
    struct Dropped {
        std::vector<EventRecord> records;
        std::vector<Outgoing> ready;
        std::string warning;
        void account();
    };
    // Adds built events to those waiting for room (in front: they came before all that waits).
    Dropped addReadyLocked(std::vector<Outgoing>& events, bool inFront);
    bool overBoundsLocked() const {
        return waiting_.size() + ready_.size() > maxEvents_ || queuedBytes_ > maxBytes_;
    }
    // Drops the oldest beyond the bounds.
    Dropped trimLocked();
    std::string countDroppedLocked(std::size_t count);
    // Events dropped after they left the waiting list: counted, and a flush reports them.
    void countLost(std::size_t count);
    static void report(const std::string& warning);

    static void beforeFork();
    static void afterForkInParent();
    static void afterForkInChild();

    Journal journal_;
    Connections connections_;

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable quiet_;
    std::deque<EventRecord> waiting_;
    // Built events waiting for room: what a closed file held, or what it could not take.
    std::deque<Outgoing> ready_;
    std::size_t queuedBytes_ = 0;
    std::size_t maxEvents_ = kDefaultMaxEvents;
    std::size_t maxBytes_ = kDefaultMaxBytes;
    std::size_t inWindow_ = 0;
    std::uint64_t dropped_ = 0;
    bool dropping_ = false;
    // The thread sleeps and nobody has woken it yet.
    bool idle_ = false;
    bool turning_ = false;
    // A turn builds or hands over events it took: a fence waits for it to finish that step.
    bool touching_ = false;
    bool stopping_ = false;
    std::optional<std::thread> thread_;
    // Changes at a fork: what the child inherited of the parent's window frees nothing.
    std::uint64_t generation_ = 0;
};

}  // namespace NorvAnalytic
