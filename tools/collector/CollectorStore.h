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
    // Every stored event, oldest first.
    std::vector<StoredEvent> events() const;

    // $XDG_DATA_HOME/NorvAnalytic/collector.sqlite, or under ~/.local/share without it.
    static std::string defaultPath();

private:
    void execute(const char* sql) const;

    mutable std::mutex mutex_;
    sqlite3* database_ = nullptr;
};

}  // namespace NorvAnalytic::Collector
