#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "reporting/BlockQueue.h"
#include "reporting/SentEvent.h"

namespace NorvAnalytic {

// Events on their way to the HTTP client. At most kWindow of them are in the client at once;
// the others wait here as compact records, oldest first, and an event's body is built only when
// it is handed over, so a burst far faster than the network costs tens of bytes per waiting
// event instead of a request each. The waiting list is bounded by count and by bytes; when it
// is full the oldest waiting event is dropped and counted.
//
// A host's call only adds the record: bodies are built and handed over by a thread of this
// class, or by a completion on the client's thread when an answer frees room. On the host's
// thread the hand-over cost an allocation per body, URL and request, freed later on the
// network thread, and each fresh page of those (about ten microseconds a fault on a virtual
// machine) was most of the event call's slowest percent.
class OutgoingEvents {
public:
    // With the throughput benchmark, 256, 1024 and 4096 delivered alike (within the noise of a
    // shared 2-core machine), while each event in the client holds ~0.5 kB (body, request,
    // completion). 1024 keeps the client's six connections fed even when the thread that
    // refills runs late, for about half a megabyte.
    static constexpr std::size_t kWindow = 1024;
    // Room for a long outage of a busy host at a few megabytes.
    static constexpr std::size_t kDefaultMaxEvents = 100'000;
    static constexpr std::size_t kDefaultMaxBytes = 32 << 20;

    static OutgoingEvents& shared();

    // Any thread. The event is handed to the client at once when the window has room and
    // nothing waits before it; otherwise it waits its turn.
    void submit(const EventFields& event, std::shared_ptr<const DeviceFacts> facts,
                bool isSavedEvent);
    // Main queue: answers taken from the client have been handled, so more may be handed over.
    void answersHandled(std::size_t count);

    void setLimits(std::size_t maxEvents, std::size_t maxBytes);
    // What a waiting event counts against the byte limit: its record and its packed texts.
    static constexpr std::size_t waitingBytes(std::size_t textBytes) {
        return sizeof(Waiting) + textBytes;
    }
    std::uint64_t droppedCount() const;
    // Returns once no hand-over runs and no waiting event fits the window: every event the
    // window has room for is in the client. For tests that read what the client got.
    void waitUntilHandedOver();

    OutgoingEvents(const OutgoingEvents&) = delete;
    OutgoingEvents& operator=(const OutgoingEvents&) = delete;

private:
    class HandedOver;
    class Delivery;

    // A waiting event: its record here, its packed texts in waitingTexts_, in the same order.
    struct Waiting {
        SentEvent event;
        std::size_t textBytes;
        std::size_t bytes() const { return waitingBytes(textBytes); }
    };

    OutgoingEvents() = default;
    // Hands waiting events to the client while the window has room. Only one thread does it at
    // a time and the others leave it to that one, so a completion that runs inside send()
    // loops here instead of recursing, and events reach the client in order.
    void pump() noexcept;
    // Wake: the hand-over thread was asked to pump, because events wait, the window has room,
    // and nobody pumps or was asked to. Here: there is no thread (it could not be started), so
    // the caller pumps itself.
    enum class HandOver { None, Wake, Here };
    HandOver handOverNeededLocked();
    void start(HandOver handOver) noexcept;
    void startHandOverThread();
    void handOverForever();
    bool hasRoomLocked() const;
    void handOver(SentEvent event) noexcept;
    // One request left the client: completed (its answer queued for the main queue) or not.
    void requestEnded(bool answerQueued);
    // Drops the oldest waiting events beyond the limits; the burst's one warning, if it starts.
    std::string dropOverLimitsLocked();

    mutable std::mutex mutex_;
    std::condition_variable handOverAsked_;
    std::condition_variable handedOver_;
    BlockQueue<Waiting> waiting_;
    BlockQueue<char> waitingTexts_;
    std::size_t waitingBytes_ = 0;
    std::size_t maxEvents_ = kDefaultMaxEvents;
    std::size_t maxBytes_ = kDefaultMaxBytes;
    std::size_t inClient_ = 0;
    // Answers queued for the main queue and not yet handled: at most kWindow, so that a main
    // queue that falls behind slows the hand-over instead of piling up answers.
    std::size_t unhandled_ = 0;
    std::uint64_t dropped_ = 0;
    bool dropping_ = false;
    bool pumping_ = false;
    bool asked_ = false;
    bool threadStarted_ = false;
    bool exiting_ = false;
    std::once_flag threadStart_;
};

}  // namespace NorvAnalytic
