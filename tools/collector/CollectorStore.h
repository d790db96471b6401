#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct sqlite3;

namespace NorvAnalytic::Collector {

// One form pair as it arrived: nothing unescaped, value absent when the part had no "=".
struct FormPair {
    std::string key;
    std::optional<std::string> value;
};

// One received event as the store keeps it.
struct StoredEvent {
    std::int64_t id = 0;
    std::string receivedAt;
    int status = 0;
    std::string body;
    std::vector<FormPair> pairs;

    // The value of the first pair with this key, if any.
    std::optional<std::string> value(const std::string& key) const;
};

// Which stored events to read; every field left empty matches every event.
struct EventFilter {
    std::optional<std::string> typeId;
    // The device UUID, or its beginning.
    std::optional<std::string> device;
    // A receive time as stored ("2026-11-22T06:00"), or its beginning: events from then on.
    std::optional<std::string> since;
    // Text the body holds, ignoring ASCII case.
    std::optional<std::string> text;
    std::int64_t afterId = 0;
    // 0 for no upper bound.
    std::int64_t beforeId = 0;
    // 0 for no limit.
    std::size_t limit = 0;
    bool newestFirst = false;
};

// How many events are stored, per type id and per answered status.
struct EventCounts {
    std::vector<std::pair<std::string, std::int64_t>> byType;
    std::vector<std::pair<int, std::int64_t>> byStatus;
    std::int64_t total = 0;
};

// The collector's SQLite file: every event with its raw body, its pairs, when it arrived and
// the status it was answered with. Safe to use from several server threads.
class CollectorStore {
public:
    // Opens (and creates, with its directory) the database at this path.
    explicit CollectorStore(const std::string& path);
    ~CollectorStore();
    CollectorStore(const CollectorStore&) = delete;
    CollectorStore& operator=(const CollectorStore&) = delete;

    // Splits a form body on "&", then each part on its first "=".
    static std::vector<FormPair> parsePairs(const std::string& body);

    // Stores one event and returns its id.
    std::int64_t save(const std::string& body, std::chrono::system_clock::time_point receivedAt,
                      int status);
    // The stored events the filter matches, oldest first unless it says otherwise.
    std::vector<StoredEvent> events(const EventFilter& filter = {}) const;
    EventCounts counts() const;

    // "2026-11-21T05:40:01.123Z": sorts as it reads, and says which clock it is.
    static std::string isoTime(std::chrono::system_clock::time_point time);

    // $XDG_DATA_HOME/NorvAnalytic/collector.sqlite, or under ~/.local/share without it.
    static std::string defaultPath();

private:
    void execute(const char* sql) const;

    mutable std::mutex mutex_;
    sqlite3* database_ = nullptr;
};

}  // namespace NorvAnalytic::Collector
