#include "LiveStreams.h"

#include "platform/SdkThread.h"

namespace NorvAnalytic::Collector {

namespace {

// Events read from the store at once, for all pages or for one page catching up.
constexpr std::size_t kBatch = 500;

std::string eventsMessage(std::int64_t lastId, const std::string& rows) {
    return "id: " + std::to_string(lastId) + "\nevent: events\ndata: [" + rows + "]\n\n";
}

}  // namespace

struct LiveStreams::Page {
    EventFilter filter;
    // The page asked for the events after this one; the events the store had not yet handed
    // out when it opened may be older.
    std::int64_t startAfter = 0;
    // Events after filter.afterId up to this id are read from the store by the page's thread;
    // the later ones come through the queue.
    std::int64_t catchUpTo = 0;
    std::deque<std::string> queue;
    std::size_t queuedBytes = 0;
    bool cut = false;
    std::condition_variable ready;
};

LiveStreams::LiveStreams(const CollectorStore& store,
                         std::function<std::string(const StoredEvent&)> eventJson,
                         std::function<std::string()> state)
    : store_(store), eventJson_(std::move(eventJson)), state_(std::move(state)) {}

LiveStreams::~LiveStreams() { close(); }

void LiveStreams::start() {
    lastId_ = store_.lastId();
    thread_ = startSdkThread("norv-streams", [this] { run(); });
}

void LiveStreams::close() {
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        for (const auto& page : pages_) {
            page->ready.notify_all();
        }
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void LiveStreams::publish() {
    {
        std::lock_guard lock(mutex_);
        pending_ = true;
    }
    changed_.notify_one();
}

std::shared_ptr<LiveStreams::Page> LiveStreams::open(const EventFilter& filter) {
    auto page = std::make_shared<Page>();
    page->filter = filter;
    page->filter.limit = kBatch;
    page->filter.newestFirst = false;
    const std::string state = "event: state\ndata: " + state_() + "\n\n";
    {
        std::lock_guard lock(mutex_);
        if (closed_ || pages_.size() >= kMaxPages) {
            return nullptr;
        }
        page->startAfter = filter.afterId;
        page->catchUpTo = lastId_;
        page->queue.push_back(state);
        page->queuedBytes = state.size();
        pages_.push_back(page);
    }
    // The count of live pages is part of the state every page shows.
    publish();
    return page;
}

void LiveStreams::leave(const std::shared_ptr<Page>& page) {
    {
        std::lock_guard lock(mutex_);
        std::erase(pages_, page);
    }
    publish();
}

std::optional<std::string> LiveStreams::next(Page& page, std::chrono::milliseconds timeout) {
    {
        std::lock_guard lock(mutex_);
        if (closed_ || page.cut) {
            return std::nullopt;
        }
    }
    if (page.filter.afterId < page.catchUpTo) {
        page.filter.beforeId = page.catchUpTo + 1;
        std::vector<StoredEvent> events;
        try {
            events = store_.events(page.filter);
        } catch (const std::exception&) {
            // Ends this stream; the browser opens it again where it left off.
            return std::nullopt;
        }
        if (events.empty()) {
            page.filter.afterId = page.catchUpTo;
            return "";
        }
        std::string rows;
        for (const StoredEvent& event : events) {
            rows += (rows.empty() ? "" : ",") + eventJson_(event);
        }
        page.filter.afterId = events.back().id;
        return eventsMessage(page.filter.afterId, rows);
    }
    std::unique_lock lock(mutex_);
    page.ready.wait_for(lock, timeout, [&] { return closed_ || page.cut || !page.queue.empty(); });
    if (closed_ || page.cut) {
        return std::nullopt;
    }
    std::string text;
    for (const std::string& message : page.queue) {
        text += message;
    }
    page.queue.clear();
    page.queuedBytes = 0;
    return text;
}

std::uint64_t LiveStreams::pagesCut() const {
    std::lock_guard lock(mutex_);
    return pagesCut_;
}

std::size_t LiveStreams::pagesOpen() const {
    std::lock_guard lock(mutex_);
    return pages_.size();
}

void LiveStreams::deliver(Page& page, std::string text) {
    if (page.cut) {
        return;
    }
    if (page.queuedBytes + text.size() > kMaxQueuedBytes) {
        page.cut = true;
        page.queue.clear();
        page.queuedBytes = 0;
        ++pagesCut_;
    } else {
        page.queuedBytes += text.size();
        page.queue.push_back(std::move(text));
    }
    page.ready.notify_one();
}

void LiveStreams::run() {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return pending_ || closed_; });
        if (closed_) {
            return;
        }
        pending_ = false;
        EventFilter unread;
        unread.afterId = lastId_;
        unread.limit = kBatch;
        lock.unlock();
        std::string state;
        std::vector<StoredEvent> events;
        std::vector<std::string> rows;
        try {
            state = state_();
            events = store_.events(unread);
            for (const StoredEvent& event : events) {
                rows.push_back(eventJson_(event));
            }
        } catch (const std::exception&) {
            // A store that failed once may not fail again: the pages wait for the next change.
            lock.lock();
            continue;
        }
        lock.lock();
        if (state != lastState_) {
            lastState_ = state;
            for (const auto& page : pages_) {
                deliver(*page, "event: state\ndata: " + state + "\n\n");
            }
        }
        for (const auto& page : pages_) {
            std::string matching;
            std::int64_t lastMatching = 0;
            for (std::size_t index = 0; index < events.size(); ++index) {
                if (events[index].id > page->startAfter && page->filter.matches(events[index])) {
                    matching += (matching.empty() ? "" : ",") + rows[index];
                    lastMatching = events[index].id;
                }
            }
            if (lastMatching > 0) {
                deliver(*page, eventsMessage(lastMatching, matching));
            }
        }
        if (!events.empty()) {
            lastId_ = events.back().id;
        }
        // A full batch may have left events behind: read again before waiting.
        if (events.size() == kBatch) {
            pending_ = true;
        }
    }
}

}  // namespace NorvAnalytic::Collector
