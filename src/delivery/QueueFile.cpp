#include "delivery/QueueFile.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>
#include <thread>

#include "storage/DataDirectory.h"
#include "storage/SqliteFile.h"
#include "platform/Diagnostics.h"

namespace NorvAnalytic {

namespace {

constexpr int kBusyMilliseconds = 5000;
constexpr int kClaimBusyMilliseconds = 200;
// The start time of a process in clock ticks since boot, the 22nd field of its stat file: with
// the pid it names one process for good, where a pid alone is soon reused.
std::optional<std::string> startTime(std::string_view pid) {
    std::ifstream file("/proc/" + std::string(pid) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // The command name in parentheses may hold spaces and parentheses of its own.
    const std::size_t nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos) {
        return std::nullopt;
    }
    std::size_t position = nameEnd + 1;
    for (int field = 2; field < 22; ++field) {
        position = stat.find(' ', position);
        if (position == std::string::npos) {
            return std::nullopt;
        }
        ++position;
    }
    return stat.substr(position, stat.find(' ', position) - position);
}

std::string ownToken() {
    std::array<char, 24> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), ::getpid()).ptr;
    const std::string pid(digits.data(), end);
    return pid + ":" + startTime(pid).value_or("");
}

bool isAlive(std::string_view owner) {
    const std::size_t colon = owner.find(':');
    if (colon == std::string_view::npos) {
        return false;
    }
    const std::optional<std::string> started = startTime(owner.substr(0, colon));
    return started && *started == owner.substr(colon + 1);
}

// Not copied: every bound text outlives the statement's step, which its reset follows.
void bindText(sqlite3_stmt* statement, int index, std::string_view text) {
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void bindBlob(sqlite3_stmt* statement, int index, std::string_view bytes) {
    sqlite3_bind_blob(statement, index, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
}

std::string column(sqlite3_stmt* statement, int index) {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, index));
    return bytes ? std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement, index)))
                 : std::string();
}

const SqliteFile::Layout kLayout{
    {"CREATE TABLE IF NOT EXISTS events("
     " id INTEGER PRIMARY KEY AUTOINCREMENT, owner TEXT NOT NULL, state INTEGER NOT NULL,"
     " saved INTEGER NOT NULL, url TEXT NOT NULL, body BLOB NOT NULL, texts BLOB NOT NULL)",
     "CREATE INDEX IF NOT EXISTS events_by_owner ON events(owner, state, id)"},
    {{"events", {"id", "owner", "state", "saved", "url", "body", "texts"}}}};

}  // namespace

std::filesystem::path QueueFile::pathFor(const std::string& bundleIdentifier) {
    std::string name = "queue";
    if (!bundleIdentifier.empty()) {
        name += '-';
        for (const char c : bundleIdentifier) {
            const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                               (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
            name += plain ? c : '_';
        }
    }
    return DataDirectory::path() / (name + ".sqlite");
}

std::unique_ptr<QueueFile> QueueFile::open(const std::filesystem::path& path) {
    std::string failure;
    std::unique_ptr<SqliteFile> file =
        SqliteFile::open(path, kLayout, {.description = "The event queue file"}, &failure);
    if (!file) {
        Diagnostics::report(DiagnosticLevel::Error, "The event queue file " + path.string() +
                                                        " cannot be used (" + failure +
                                                        "): events stay in memory.");
        return nullptr;
    }
    return std::unique_ptr<QueueFile>(new QueueFile(std::move(file), ownToken()));
}

void QueueFile::remove(const std::filesystem::path& path) { SqliteFile::remove(path); }

void QueueFile::eraseAll(const std::filesystem::path& directory) {
    std::error_code error;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with("queue") && name.find(".sqlite") != std::string::npos) {
            files.push_back(entry.path());
        }
    }
    for (const std::filesystem::path& file : files) {
        const std::string name = file.filename().string();
        if (name.find(".corrupt-") != std::string::npos) {
            std::filesystem::remove(file, error);
            continue;
        }
        if (!name.ends_with(".sqlite")) {
            continue;
        }
        sqlite3* database = nullptr;
        bool erased = sqlite3_open_v2(file.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr) ==
                      SQLITE_OK;
        sqlite3_busy_timeout(database, kBusyMilliseconds);
        // Zeroed on delete, the free pages of earlier deletes dropped by the vacuum, and the
        // journal that still holds old pages cut to nothing.
        for (const char* step : {"PRAGMA secure_delete = ON", "PRAGMA temp_store = MEMORY",
                                 "DELETE FROM events", "VACUUM",
                                 "PRAGMA wal_checkpoint(TRUNCATE)"}) {
            erased = erased && sqlite3_exec(database, step, nullptr, nullptr, nullptr) == SQLITE_OK;
        }
        sqlite3_close_v2(database);
        if (!erased) {
            // A file we cannot clean goes whole; a process still writing it starts anew.
            remove(file);
        }
    }
}

QueueFile::QueueFile(std::unique_ptr<SqliteFile> file, std::string owner)
    : file_(std::move(file)), database_(file_->handle()), owner_(std::move(owner)) {}

QueueFile::~QueueFile() {
    for (const auto& [sql, prepared] : statements_) {
        sqlite3_finalize(prepared);
    }
}

bool QueueFile::run(const char* sql) {
    return sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

QueueFile::Statement::~Statement() {
    sqlite3_reset(prepared_);
    sqlite3_clear_bindings(prepared_);
}

QueueFile::Statement QueueFile::statement(const char* sql) {
    for (const auto& [text, prepared] : statements_) {
        if (text == sql) {
            return Statement(prepared);
        }
    }
    sqlite3_stmt* prepared = nullptr;
    if (sqlite3_prepare_v3(database_, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr) !=
        SQLITE_OK) {
        throw std::system_error(std::make_error_code(std::errc::io_error), sqlite3_errmsg(database_));
    }
    statements_.emplace_back(sql, prepared);
    return Statement(prepared);
}

std::vector<std::int64_t> QueueFile::claimOrphans() {
    std::vector<std::int64_t> ids;
    // Runs on the host's thread at initWithKey: a file another process holds long is claimed
    // from at the next start instead.
    sqlite3_busy_timeout(database_, kClaimBusyMilliseconds);
    const bool began = run("BEGIN IMMEDIATE");
    sqlite3_busy_timeout(database_, kBusyMilliseconds);
    if (began) {
        std::vector<std::string> owners;
        {
            const Statement select =
                statement("SELECT DISTINCT owner FROM events WHERE owner != ?1");
            bindText(select, 1, owner_);
            while (sqlite3_step(select) == SQLITE_ROW) {
                owners.push_back(column(select, 0));
            }
        }
        for (const std::string& owner : owners) {
            if (isAlive(owner)) {
                continue;
            }
            const Statement claim =
                statement("UPDATE events SET owner = ?1, saved = (saved OR state = 1), state = 0"
                          " WHERE owner = ?2");
            bindText(claim, 1, owner_);
            bindText(claim, 2, owner);
            sqlite3_step(claim);
        }
        if (!run("COMMIT")) {
            run("ROLLBACK");
        }
    }
    const Statement select =
        statement("SELECT id FROM events WHERE owner = ?1 AND state = 0 ORDER BY id");
    bindText(select, 1, owner_);
    while (sqlite3_step(select) == SQLITE_ROW) {
        ids.push_back(sqlite3_column_int64(select, 0));
    }
    return ids;
}

bool QueueFile::write(const std::vector<Row>& rows, std::vector<std::int64_t>& ids,
                      const std::vector<Change>& changes) {
    if (!run("BEGIN IMMEDIATE")) {
        return false;
    }
    bool written = true;
    const std::size_t firstId = ids.size();
    for (const Row& row : rows) {
        const Statement insert = statement(
            "INSERT INTO events(owner, state, saved, url, body, texts) VALUES(?1, 0, ?2, ?3, ?4, ?5)");
        bindText(insert, 1, owner_);
        sqlite3_bind_int(insert, 2, row.isSavedEvent ? 1 : 0);
        bindText(insert, 3, row.url);
        bindBlob(insert, 4, row.body);
        bindBlob(insert, 5, row.texts);
        written = written && sqlite3_step(insert) == SQLITE_DONE;
        ids.push_back(sqlite3_last_insert_rowid(database_));
    }
    for (const Change& change : changes) {
        const Statement apply = statement(change.state ? "UPDATE events SET state = ?2 WHERE id = ?1"
                                                       : "DELETE FROM events WHERE id = ?1");
        sqlite3_bind_int64(apply, 1, change.id);
        if (change.state) {
            sqlite3_bind_int(apply, 2, static_cast<int>(*change.state));
        }
        written = written && sqlite3_step(apply) == SQLITE_DONE;
    }
    if (written && run("COMMIT")) {
        return true;
    }
    run("ROLLBACK");
    ids.resize(firstId);
    return false;
}

std::vector<QueueFile::Row> QueueFile::read(State state, std::int64_t afterId, std::size_t limit) {
    std::vector<Row> rows;
    const Statement select = statement(
        "SELECT id, url, body, texts, saved FROM events"
        " WHERE owner = ?1 AND state = ?2 AND id > ?3 ORDER BY id LIMIT ?4");
    bindText(select, 1, owner_);
    sqlite3_bind_int(select, 2, static_cast<int>(state));
    sqlite3_bind_int64(select, 3, afterId);
    sqlite3_bind_int64(select, 4, static_cast<sqlite3_int64>(limit));
    while (sqlite3_step(select) == SQLITE_ROW) {
        rows.push_back({sqlite3_column_int64(select, 0), column(select, 1), column(select, 2),
                        column(select, 3), sqlite3_column_int(select, 4) != 0});
    }
    return rows;
}

QueueFile::Counts QueueFile::count(State state) {
    const Statement select = statement(
        "SELECT count(*), coalesce(sum(length(body) + length(texts)), 0) FROM events"
        " WHERE owner = ?1 AND state = ?2");
    bindText(select, 1, owner_);
    sqlite3_bind_int(select, 2, static_cast<int>(state));
    if (sqlite3_step(select) != SQLITE_ROW) {
        return {};
    }
    return {static_cast<std::size_t>(sqlite3_column_int64(select, 0)),
            static_cast<std::size_t>(sqlite3_column_int64(select, 1))};
}

std::size_t QueueFile::trim(State state, std::int64_t afterId, std::size_t maxEvents,
                            std::size_t maxBytes) {
    Counts left = count(state);
    if (left.events <= maxEvents && left.bytes <= maxBytes) {
        return 0;
    }
    std::vector<Change> oldest;
    {
        const Statement select = statement(
            "SELECT id, length(body) + length(texts) FROM events"
            " WHERE owner = ?1 AND state = ?2 AND id > ?3 ORDER BY id");
        bindText(select, 1, owner_);
        sqlite3_bind_int(select, 2, static_cast<int>(state));
        sqlite3_bind_int64(select, 3, afterId);
        while ((left.events > maxEvents || left.bytes > maxBytes) &&
               sqlite3_step(select) == SQLITE_ROW) {
            oldest.push_back({sqlite3_column_int64(select, 0), std::nullopt});
            --left.events;
            left.bytes -= std::min(left.bytes,
                                   static_cast<std::size_t>(sqlite3_column_int64(select, 1)));
        }
    }
    std::vector<std::int64_t> none;
    return write({}, none, oldest) ? oldest.size() : 0;
}

void QueueFile::clear() {
    const Statement erase = statement("DELETE FROM events WHERE owner = ?1");
    bindText(erase, 1, owner_);
    sqlite3_step(erase);
}

}  // namespace NorvAnalytic
