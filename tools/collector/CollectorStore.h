#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct sqlite3_stmt;

namespace NorvAnalytic {
class SqliteFile;
}  // namespace NorvAnalytic

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
    // The body the collector answered with; empty for events stored before it was kept.
    std::string answer;
    // The Idempotency-Key it came with, and how many requests with that key came again.
    std::optional<std::string> idempotencyKey;
    std::int64_t repeats = 0;

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

    // Whether an event passes the type, device and text filters, as the store's query
    // decides it (ids, time and limit aside): live pages filter events already read.
    bool matches(const StoredEvent& event) const;
};

// How many events are stored, per type id and per answered status.
struct EventCounts {
    std::vector<std::pair<std::string, std::int64_t>> byType;
    std::vector<std::pair<int, std::int64_t>> byStatus;
    std::int64_t total = 0;
    // The newest event counted, so that a page adds only events after it.
    std::int64_t lastId = 0;
};

// Events of one type that arrived within one second or minute, refused or answered 200.
struct RateBucket {
    std::string time;
    std::string typeId;
    bool refused = false;
    std::int64_t count = 0;
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

    // Stores one event and returns its id. Throws when another event has the same key.
    std::int64_t save(const std::string& body, std::chrono::system_clock::time_point receivedAt,
                      int status, const std::string& answer = {},
                      const std::optional<std::string>& idempotencyKey = std::nullopt);
    // The event stored with this Idempotency-Key, without its pairs.
    std::optional<StoredEvent> eventWithKey(const std::string& idempotencyKey) const;
    // Counts one more request that repeated the event.
    void countRepeat(std::int64_t id);
    // The repeats counted over all stored events.
    std::int64_t repeatsAbsorbed() const;
    // The stored events the filter matches, oldest first unless it says otherwise.
    std::vector<StoredEvent> events(const EventFilter& filter = {}) const;
    // Counts of the events the filter matches (its ids and limit aside).
    EventCounts counts(const EventFilter& filter = {}) const;
    // The events the filter matches from filter.since on, counted per second (or per minute
    // with perMinute), type and refusal; buckets are times cut to "2026-11-22T06:30:01".
    // lastId, when given, receives the newest event id they include.
    std::vector<RateBucket> rates(const EventFilter& filter, bool perMinute,
                                  std::int64_t* lastId = nullptr) const;
    // The id of the newest stored event, 0 when there is none.
    std::int64_t lastId() const;

    // "2026-11-21T05:40:01.123Z": sorts as it reads, and says which clock it is.
    static std::string isoTime(std::chrono::system_clock::time_point time);

    // $XDG_DATA_HOME/NorvAnalytic/collector.sqlite, or under ~/.local/share without it.
    static std::string defaultPath();

private:
    void execute(const char* sql) const;
    // Files written by earlier versions gain the column; their events get its default.
    void addColumn(const char* name, const char* definition);
    // The "AND …" conditions of a filter over table "events", numbered as bind() binds them.
    static std::string conditions(const EventFilter& filter);
    static void bind(sqlite3_stmt* statement, const EventFilter& filter);

    mutable std::mutex mutex_;
    std::unique_ptr<SqliteFile> file_;
    std::int64_t repeatsAbsorbed_ = 0;
};

}  // namespace NorvAnalytic::Collector
