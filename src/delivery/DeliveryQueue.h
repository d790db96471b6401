#pragma once

#include <NorvAnalytic/HttpClient.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "delivery/EventRecord.h"

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
    // Returns once the hand-over has nothing to do until an answer or a call wakes it: after a
    // burst, every event the window has room for is in the client. For tests that read what the
    // client got.
    void waitUntilHandedOver();

    DeliveryQueue(const DeliveryQueue&) = delete;
    DeliveryQueue& operator=(const DeliveryQueue&) = delete;

private:
    class Delivery;

    DeliveryQueue();
    void startLocked();
    void deliverForever();
    void handOver(EventRecord record, const std::shared_ptr<const DeviceFacts>& device) noexcept;
    static void answered(const std::shared_ptr<Delivery>& delivery, std::optional<std::string> data,
                         std::optional<HttpResponse> response, std::optional<Error> error);
    void released(std::uint64_t generation);
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
};

}  // namespace NorvAnalytic
