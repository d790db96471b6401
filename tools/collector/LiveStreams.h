#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "CollectorStore.h"

namespace NorvAnalytic::Collector {

// The live pages' streams. One thread reads each new event from the store once, writes it as
// JSON once, and queues it for every page whose filters it matches; a page's own server thread
// only writes what its queue holds. A page whose queue fills is cut off and counted: its
// browser reconnects and reads what it missed from the store.
class LiveStreams {
public:
    static constexpr std::size_t kMaxPages = 128;
    // What one page may have waiting before it is cut off.
    static constexpr std::size_t kMaxQueuedBytes = 2 * 1024 * 1024;

    struct Page;

    // eventJson turns an event into its JSON text; state gives the steering state as JSON.
    LiveStreams(const CollectorStore& store,
                std::function<std::string(const StoredEvent&)> eventJson,
                std::function<std::string()> state);
    ~LiveStreams();
    LiveStreams(const LiveStreams&) = delete;
    LiveStreams& operator=(const LiveStreams&) = delete;

    void start();
    // Ends every stream and the thread; the server's threads may then be joined.
    void close();
    // Something a page shows changed: an event was stored, or the steering.
    void publish();

    // A page that gets the events after filter.afterId that its filter matches, and the state;
    // null when kMaxPages are open already.
    std::shared_ptr<Page> open(const EventFilter& filter);
    void leave(const std::shared_ptr<Page>& page);
    // The next text for the page's stream, waiting up to `timeout`: "" when nothing came;
    // nothing once the page was cut off or the streams closed.
    std::optional<std::string> next(Page& page, std::chrono::milliseconds timeout);

    std::uint64_t pagesCut() const;
    std::size_t pagesOpen() const;

private:
    void run();
    void deliver(Page& page, std::string text);

    const CollectorStore& store_;
    std::function<std::string(const StoredEvent&)> eventJson_;
    std::function<std::string()> state_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool pending_ = true;
    bool closed_ = false;
    // Events up to this id have been handed to every page.
    std::int64_t lastId_ = 0;
    std::string lastState_;
    std::vector<std::shared_ptr<Page>> pages_;
    std::uint64_t pagesCut_ = 0;
    std::thread thread_;
};

}  // namespace NorvAnalytic::Collector
