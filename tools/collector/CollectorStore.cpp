#include "CollectorStore.h"

#include <sqlite3.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <stdexcept>

#include "storage/DataDirectory.h"
#include "storage/SqliteFile.h"

namespace NorvAnalytic::Collector {

namespace {

using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

const SqliteFile::Layout kLayout{
    {"CREATE TABLE IF NOT EXISTS events ("
     "id INTEGER PRIMARY KEY AUTOINCREMENT, received_at TEXT NOT NULL, "
     "status INTEGER NOT NULL, body BLOB NOT NULL)",
     "CREATE TABLE IF NOT EXISTS pairs ("
     "event_id INTEGER NOT NULL REFERENCES events(id), position INTEGER NOT NULL, "
     "key TEXT NOT NULL, value TEXT, PRIMARY KEY (event_id, position))",
     // The page filters and counts by type and device, and counts by status, over many events.
     "CREATE INDEX IF NOT EXISTS pairs_by_key ON pairs (key, value, event_id)",
     "CREATE INDEX IF NOT EXISTS events_by_status ON events (status)"},
    {{"events", {"id", "received_at", "status", "body"}},
     {"pairs", {"event_id", "position", "key", "value"}}}};

// The columns eventAt() reads, in its order.
constexpr const char* kEventColumns =
    "SELECT id, received_at, status, body, answer, idempotency_key, repeats";

Statement prepare(sqlite3* database, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database, sql, -1, &statement, nullptr) != SQLITE_OK) {
        throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(database));
    }
    return Statement(statement, &sqlite3_finalize);
}

void bindText(sqlite3_stmt* statement, int index, const std::string& text) {
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()),
                      SQLITE_TRANSIENT);
}

std::string columnText(sqlite3_stmt* statement, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
    return text ? std::string(text,
                              static_cast<std::size_t>(sqlite3_column_bytes(statement, column)))
                : std::string();
}

// One row of kEventColumns, without its pairs.
StoredEvent eventAt(sqlite3_stmt* statement) {
    StoredEvent event;
    event.id = sqlite3_column_int64(statement, 0);
    event.receivedAt = columnText(statement, 1);
    event.status = sqlite3_column_int(statement, 2);
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, 3));
    event.body.assign(bytes ? bytes : "",
                      static_cast<std::size_t>(sqlite3_column_bytes(statement, 3)));
    event.answer = columnText(statement, 4);
    if (sqlite3_column_type(statement, 5) != SQLITE_NULL) {
        event.idempotencyKey = columnText(statement, 5);
    }
    event.repeats = sqlite3_column_int64(statement, 6);
    return event;
}

}  // namespace

std::optional<std::string> StoredEvent::value(const std::string& key) const {
    for (const FormPair& pair : pairs) {
        if (pair.key == key) {
            return pair.value;
        }
    }
    return std::nullopt;
}

bool EventFilter::matches(const StoredEvent& event) const {
    if (typeId && event.value("type") != typeId) {
        return false;
    }
    if (device) {
        const std::optional<std::string> uuid = event.value("device_uuid");
        if (!uuid || !uuid->starts_with(*device)) {
            return false;
        }
    }
    if (text) {
        // SQLite's lower() folds ASCII letters only; so does this.
        const auto fold = [](char c) {
            return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
        };
        const auto found =
            std::search(event.body.begin(), event.body.end(), text->begin(), text->end(),
                        [&](char a, char b) { return fold(a) == fold(b); });
        if (found == event.body.end() && !text->empty()) {
            return false;
        }
    }
    return true;
}

CollectorStore::CollectorStore(const std::string& path) {
    std::string failure;
    file_ = SqliteFile::open(path, kLayout, {.description = "The collector's file"}, &failure);
    if (!file_) {
        throw std::runtime_error("cannot open " + path + ": " + failure);
    }
    addColumn("answer", "TEXT NOT NULL DEFAULT ''");
    addColumn("idempotency_key", "TEXT");
    addColumn("repeats", "INTEGER NOT NULL DEFAULT 0");
    // One event per key; events without a key (NULL) are all distinct.
    execute("CREATE UNIQUE INDEX IF NOT EXISTS events_by_key ON events (idempotency_key)");
    SqliteFile::Statement repeats =
        file_->statement("SELECT COALESCE(SUM(repeats), 0) FROM events");
    repeats.step();
    repeatsAbsorbed_ = repeats.number(0);
}

void CollectorStore::addColumn(const char* name, const char* definition) {
    SqliteFile::Statement columns =
        file_->statement("SELECT 1 FROM pragma_table_info('events') WHERE name = ?");
    if (!columns.bind(1, name).step()) {
        execute(("ALTER TABLE events ADD COLUMN " + std::string(name) + " " + definition).c_str());
    }
}

CollectorStore::~CollectorStore() = default;

std::vector<FormPair> CollectorStore::parsePairs(const std::string& body) {
    std::vector<FormPair> pairs;
    if (body.empty()) {
        return pairs;
    }
    std::size_t start = 0;
    while (true) {
        const std::size_t end = body.find('&', start);
        const std::string part = body.substr(start, end == std::string::npos ? end : end - start);
        const std::size_t equals = part.find('=');
        if (equals == std::string::npos) {
            pairs.push_back({part, std::nullopt});
        } else {
            pairs.push_back({part.substr(0, equals), part.substr(equals + 1)});
        }
        if (end == std::string::npos) {
            return pairs;
        }
        start = end + 1;
    }
}

std::int64_t CollectorStore::save(const std::string& body,
                                  std::chrono::system_clock::time_point receivedAt, int status,
                                  const std::string& answer,
                                  const std::optional<std::string>& idempotencyKey) {
    const std::vector<FormPair> pairs = parsePairs(body);
    const std::string time = isoTime(receivedAt);
    std::lock_guard lock(mutex_);
    execute("BEGIN IMMEDIATE");
    try {
        SqliteFile::Statement insertEvent = file_->statement(
            "INSERT INTO events (received_at, status, body, answer, idempotency_key) "
            "VALUES (?, ?, ?, ?, ?)");
        insertEvent.bind(1, time).bind(2, std::int64_t{status}).bindBlob(3, body).bind(4, answer);
        if (idempotencyKey) {
            insertEvent.bind(5, *idempotencyKey);
        }
        insertEvent.step();
        const std::int64_t id = sqlite3_last_insert_rowid(file_->handle());
        for (std::size_t position = 0; position < pairs.size(); ++position) {
            SqliteFile::Statement insertPair = file_->statement(
                "INSERT INTO pairs (event_id, position, key, value) VALUES (?, ?, ?, ?)");
            insertPair.bind(1, id).bind(2, static_cast<std::int64_t>(position));
            insertPair.bind(3, pairs[position].key);
            if (pairs[position].value) {
                insertPair.bind(4, *pairs[position].value);
            } else {
                insertPair.bindNull(4);
            }
            insertPair.step();
        }
        execute("COMMIT");
        return id;
    } catch (...) {
        execute("ROLLBACK");
        throw;
    }
}

std::string CollectorStore::conditions(const EventFilter& filter) {
    std::string sql;
    if (filter.beforeId > 0) {
        sql += " AND id < ?2";
    }
    if (filter.since) {
        sql += " AND received_at >= ?3";
    }
    if (filter.typeId) {
        sql += " AND id IN (SELECT event_id FROM pairs WHERE key = 'type' AND value = ?4)";
    }
    if (filter.device) {
        sql +=
            " AND id IN (SELECT event_id FROM pairs WHERE key = 'device_uuid'"
            " AND value >= ?5 AND value < ?5 || char(1114111))";
    }
    if (filter.text) {
        sql += " AND instr(lower(CAST(body AS TEXT)), lower(?6)) > 0";
    }
    return sql;
}

void CollectorStore::bind(sqlite3_stmt* statement, const EventFilter& filter) {
    sqlite3_bind_int64(statement, 1, filter.afterId);
    sqlite3_bind_int64(statement, 2, filter.beforeId);
    bindText(statement, 3, filter.since.value_or(""));
    bindText(statement, 4, filter.typeId.value_or(""));
    bindText(statement, 5, filter.device.value_or(""));
    bindText(statement, 6, filter.text.value_or(""));
    sqlite3_bind_int64(statement, 7, static_cast<sqlite3_int64>(filter.limit));
}

std::optional<StoredEvent> CollectorStore::eventWithKey(const std::string& idempotencyKey) const {
    std::lock_guard lock(mutex_);
    Statement select = prepare(
        file_->handle(), (std::string(kEventColumns) + " FROM events WHERE idempotency_key = ?").c_str());
    bindText(select.get(), 1, idempotencyKey);
    if (sqlite3_step(select.get()) != SQLITE_ROW) {
        return std::nullopt;
    }
    return eventAt(select.get());
}

void CollectorStore::countRepeat(std::int64_t id) {
    std::lock_guard lock(mutex_);
    file_->statement("UPDATE events SET repeats = repeats + 1 WHERE id = ?").bind(1, id).step();
    ++repeatsAbsorbed_;
}

std::int64_t CollectorStore::repeatsAbsorbed() const {
    std::lock_guard lock(mutex_);
    return repeatsAbsorbed_;
}

std::vector<StoredEvent> CollectorStore::events(const EventFilter& filter) const {
    std::string sql =
        std::string(kEventColumns) + " FROM events WHERE id > ?1" + conditions(filter);
    sql += filter.newestFirst ? " ORDER BY id DESC" : " ORDER BY id";
    if (filter.limit > 0) {
        sql += " LIMIT ?7";
    }

    std::lock_guard lock(mutex_);
    Statement selectEvents = prepare(file_->handle(), sql.c_str());
    bind(selectEvents.get(), filter);
    std::vector<StoredEvent> events;
    while (sqlite3_step(selectEvents.get()) == SQLITE_ROW) {
        events.push_back(eventAt(selectEvents.get()));
    }
    for (StoredEvent& event : events) {
        SqliteFile::Statement selectPairs = file_->statement(
            "SELECT key, value FROM pairs WHERE event_id = ? ORDER BY position");
        selectPairs.bind(1, event.id);
        while (selectPairs.step()) {
            FormPair pair{selectPairs.text(0), std::nullopt};
            if (!selectPairs.isNull(1)) {
                pair.value = selectPairs.text(1);
            }
            event.pairs.push_back(std::move(pair));
        }
    }
    return events;
}

EventCounts CollectorStore::counts(const EventFilter& filter) const {
    EventFilter all = filter;
    all.afterId = 0;
    all.beforeId = 0;
    const std::string matching = "SELECT id FROM events WHERE id > ?1" + conditions(all);
    std::lock_guard lock(mutex_);
    EventCounts counts;
    Statement byType = prepare(file_->handle(), ("SELECT value, COUNT(*) FROM pairs WHERE key = 'type'"
                                           " AND event_id IN (" +
                                           matching + ") GROUP BY value")
                                              .c_str());
    bind(byType.get(), all);
    while (sqlite3_step(byType.get()) == SQLITE_ROW) {
        counts.byType.emplace_back(columnText(byType.get(), 0),
                                   sqlite3_column_int64(byType.get(), 1));
    }
    Statement byStatus =
        prepare(file_->handle(), ("SELECT status, COUNT(*), MAX(id) FROM events WHERE id IN (" +
                            matching + ") GROUP BY status")
                               .c_str());
    bind(byStatus.get(), all);
    while (sqlite3_step(byStatus.get()) == SQLITE_ROW) {
        counts.byStatus.emplace_back(sqlite3_column_int(byStatus.get(), 0),
                                     sqlite3_column_int64(byStatus.get(), 1));
        counts.total += counts.byStatus.back().second;
    }
    // The newest of all events, not only the matching ones: a page counts what comes after.
    Statement newest = prepare(file_->handle(), "SELECT COALESCE(MAX(id), 0) FROM events");
    sqlite3_step(newest.get());
    counts.lastId = sqlite3_column_int64(newest.get(), 0);
    return counts;
}

std::vector<RateBucket> CollectorStore::rates(const EventFilter& filter, bool perMinute,
                                              std::int64_t* lastId) const {
    EventFilter all = filter;
    all.afterId = 0;
    all.beforeId = 0;
    const std::string sql =
        std::string("SELECT substr(received_at, 1, ") + (perMinute ? "16" : "19") +
        ") AS bucket, COALESCE((SELECT value FROM pairs WHERE event_id = events.id "
        "AND key = 'type'), '') AS type, status != 200 AS refused, COUNT(*) "
        "FROM events WHERE id > ?1" +
        conditions(all) + " GROUP BY bucket, type, refused ORDER BY bucket, type, refused";
    std::lock_guard lock(mutex_);
    Statement select = prepare(file_->handle(), sql.c_str());
    bind(select.get(), all);
    std::vector<RateBucket> buckets;
    while (sqlite3_step(select.get()) == SQLITE_ROW) {
        buckets.push_back({columnText(select.get(), 0), columnText(select.get(), 1),
                           sqlite3_column_int(select.get(), 2) != 0,
                           sqlite3_column_int64(select.get(), 3)});
    }
    if (lastId != nullptr) {
        Statement newest = prepare(file_->handle(), "SELECT COALESCE(MAX(id), 0) FROM events");
        sqlite3_step(newest.get());
        *lastId = sqlite3_column_int64(newest.get(), 0);
    }
    return buckets;
}

std::int64_t CollectorStore::lastId() const {
    std::lock_guard lock(mutex_);
    Statement newest = prepare(file_->handle(), "SELECT COALESCE(MAX(id), 0) FROM events");
    sqlite3_step(newest.get());
    return sqlite3_column_int64(newest.get(), 0);
}

std::string CollectorStore::isoTime(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() %
        1000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
    char text[48];
    std::snprintf(text, sizeof text, "%s.%03lldZ", stamp, static_cast<long long>(millis));
    return text;
}

std::string CollectorStore::defaultPath() {
    return (DataDirectory::path() / "collector.sqlite").string();
}

void CollectorStore::execute(const char* sql) const {
    char* message = nullptr;
    if (sqlite3_exec(file_->handle(), sql, nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string reason = message ? message : "unknown error";
        sqlite3_free(message);
        throw std::runtime_error("SQLite: " + reason);
    }
}

}  // namespace NorvAnalytic::Collector
