#include "delivery/QueueFile.h"

#include <NorvAnalytic/Bundle.h>
#include <sqlite3.h>

#include <algorithm>
#include <system_error>

#include "delivery/OwnerLock.h"
#include "platform/Diagnostics.h"
#include "storage/DataDirectory.h"
#include "storage/SqliteFile.h"

namespace NorvAnalytic {

namespace {

using Statement = SqliteFile::Statement;

// A claim waits only briefly for another process's write: the rows wait for the next try.
constexpr std::chrono::milliseconds kClaimBusy{200};
// A group commit waits a little longer; beyond that the events are sent from memory meanwhile.
constexpr std::chrono::milliseconds kWriteBusy{1000};

const SqliteFile::Layout kLayout{
    {"CREATE TABLE IF NOT EXISTS events("
     " id INTEGER PRIMARY KEY AUTOINCREMENT, owner TEXT NOT NULL, state INTEGER NOT NULL,"
     " saved INTEGER NOT NULL, url TEXT NOT NULL, body BLOB NOT NULL, texts BLOB NOT NULL,"
     " event_id TEXT)",
     "CREATE INDEX IF NOT EXISTS events_by_owner ON events(owner, state, id)"},
    {{"events", {"id", "owner", "state", "saved", "url", "body", "texts"}}}};

// Files written before events had ids gain the column; their rows have none.
bool addEventIdColumn(SqliteFile& file) {
    bool present = false;
    {
        Statement columns =
            file.statement("SELECT 1 FROM pragma_table_info('events') WHERE name = 'event_id'");
        present = columns.step();
    }
    return present || file.run("ALTER TABLE events ADD COLUMN event_id TEXT");
}

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

std::filesystem::path QueueFile::pathForMainBundle() {
    const std::shared_ptr<const Bundle> bundle = Bundle::mainBundle();
    return pathFor(bundle ? bundle->bundleIdentifier() : std::string());
}

std::unique_ptr<QueueFile> QueueFile::open(const std::filesystem::path& path, const OwnerLock& owner) {
    std::string failure = "its table cannot be brought up to date";
    std::unique_ptr<SqliteFile> file = SqliteFile::open(
        path, kLayout, {.description = "The event queue file", .busyTimeout = kWriteBusy}, &failure);
    try {
        if (file && addEventIdColumn(*file)) {
            std::unique_ptr<QueueFile> opened(new QueueFile(std::move(file), owner));
            return opened;
        }
    } catch (const std::system_error& error) {
        failure = error.what();
    }
    Diagnostics::report(DiagnosticLevel::Error, "The event queue file " + path.string() +
                                                    " cannot be used (" + failure +
                                                    "): events stay in memory.");
    return nullptr;
}

void QueueFile::remove(const std::filesystem::path& path) { SqliteFile::remove(path); }

bool QueueFile::eraseAll(const std::filesystem::path& directory) {
    std::error_code error;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with("queue") && name.find(".sqlite") != std::string::npos) {
            files.push_back(entry.path());
        }
    }
    bool erasedAll = true;
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
        // The host waits for this: another process's write lock is waited for a second at most.
        sqlite3_busy_timeout(database, 1000);
        // Zeroed on delete, the free pages of earlier deletes dropped by the vacuum.
        for (const char* step : {"PRAGMA secure_delete = ON", "PRAGMA temp_store = MEMORY",
                                 "DELETE FROM events", "VACUUM"}) {
            erased = erased && sqlite3_exec(database, step, nullptr, nullptr, nullptr) == SQLITE_OK;
        }
        // The journal still holds old pages until it is cut to nothing, which another process's
        // open read can prevent: that is said, not taken for success.
        int framesInJournal = 0;
        int framesCopied = 0;
        const bool truncated =
            erased && sqlite3_wal_checkpoint_v2(database, nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                                &framesInJournal, &framesCopied) == SQLITE_OK;
        sqlite3_close_v2(database);
        if (!erased) {
            // A file we cannot clean goes whole; a process still writing it starts anew.
            remove(file);
        } else if (!truncated) {
            erasedAll = false;
            Diagnostics::report(DiagnosticLevel::Error,
                                "The journal of the event queue file " + file.string() +
                                    " could not be emptied while another process read it: "
                                    "erased events' bytes may remain on disk until it is.");
        }
    }
    return erasedAll;
}

QueueFile::QueueFile(std::unique_ptr<SqliteFile> file, const OwnerLock& owner)
    : file_(std::move(file)), owner_(owner) {}

QueueFile::~QueueFile() = default;

void QueueFile::abandon() { file_->abandon(); }

std::vector<std::int64_t> QueueFile::claimOrphans() {
    // Rows this process left in an earlier opening went from memory, or were discarded.
    if (!clear()) {
        throw std::system_error(std::make_error_code(std::errc::io_error), "rows left behind");
    }
    file_->setBusyTimeout(kClaimBusy);
    const bool began = file_->run("BEGIN IMMEDIATE");
    file_->setBusyTimeout(kWriteBusy);
    if (began) {
        try {
            std::vector<std::string> owners;
            {
                Statement select = file_->statement("SELECT DISTINCT owner FROM events WHERE owner != ?1");
                select.bind(1, owner_.token());
                while (select.step()) {
                    owners.push_back(select.text(0));
                }
            }
            for (const std::string& owner : owners) {
                if (owner_.isAlive(owner)) {
                    continue;
                }
                Statement claim = file_->statement(
                    "UPDATE events SET owner = ?1, saved = (saved OR state = 1), state = 0"
                    " WHERE owner = ?2");
                claim.bind(1, owner_.token()).bind(2, owner);
                claim.step();
            }
        } catch (const std::system_error&) {
            file_->run("ROLLBACK");
            throw;
        }
        if (!file_->run("COMMIT")) {
            file_->run("ROLLBACK");
        }
    }
    std::vector<std::int64_t> ids;
    Statement select =
        file_->statement("SELECT id FROM events WHERE owner = ?1 AND state = 0 ORDER BY id");
    select.bind(1, owner_.token());
    while (select.step()) {
        ids.push_back(select.number(0));
    }
    return ids;
}

bool QueueFile::write(const std::vector<Row>& rows, std::vector<std::int64_t>& ids,
                      const std::vector<Change>& changes) {
    if (!file_->run("BEGIN IMMEDIATE")) {
        return false;
    }
    const std::size_t firstId = ids.size();
    try {
        for (const Row& row : rows) {
            Statement insert = file_->statement(
                "INSERT INTO events(owner, state, saved, url, body, texts, event_id)"
                " VALUES(?1, 0, ?2, ?3, ?4, ?5, ?6)");
            insert.bind(1, owner_.token()).bind(2, std::int64_t{row.isSavedEvent ? 1 : 0});
            insert.bind(3, row.url).bindBlob(4, row.body).bindBlob(5, row.texts);
            if (row.eventId.empty()) {
                insert.bindNull(6);
            } else {
                insert.bind(6, row.eventId);
            }
            insert.step();
            ids.push_back(sqlite3_last_insert_rowid(file_->handle()));
        }
        for (const Change& change : changes) {
            Statement apply = file_->statement(change.state
                                                   ? "UPDATE events SET state = ?2 WHERE id = ?1"
                                                   : "DELETE FROM events WHERE id = ?1");
            apply.bind(1, change.id);
            if (change.state) {
                apply.bind(2, std::int64_t{static_cast<int>(*change.state)});
            }
            apply.step();
        }
        if (file_->run("COMMIT")) {
            return true;
        }
    } catch (const std::system_error&) {
        // Rolled back below: nothing of this group is written.
    }
    file_->run("ROLLBACK");
    ids.resize(firstId);
    return false;
}

std::vector<QueueFile::Row> QueueFile::read(State state, std::int64_t afterId, std::size_t limit) {
    std::vector<Row> rows;
    Statement select = file_->statement(
        "SELECT id, url, body, texts, saved, event_id FROM events"
        " WHERE owner = ?1 AND state = ?2 AND id > ?3 ORDER BY id LIMIT ?4");
    select.bind(1, owner_.token()).bind(2, std::int64_t{static_cast<int>(state)});
    select.bind(3, afterId).bind(4, static_cast<std::int64_t>(limit));
    while (select.step()) {
        rows.push_back({select.number(0), select.text(1), select.text(2), select.text(3),
                        select.number(4) != 0, select.text(5)});
    }
    return rows;
}

QueueFile::Counts QueueFile::count(State state) {
    Statement select = file_->statement(
        "SELECT count(*), coalesce(sum(length(body) + length(texts)), 0) FROM events"
        " WHERE owner = ?1 AND state = ?2");
    select.bind(1, owner_.token()).bind(2, std::int64_t{static_cast<int>(state)});
    if (!select.step()) {
        return {};
    }
    return {static_cast<std::size_t>(select.number(0)), static_cast<std::size_t>(select.number(1))};
}

std::size_t QueueFile::trim(State state, std::size_t maxEvents, std::size_t maxBytes) {
    Counts left = count(state);
    if (left.events <= maxEvents && left.bytes <= maxBytes) {
        return 0;
    }
    std::vector<Change> oldest;
    {
        Statement select = file_->statement(
            "SELECT id, length(body) + length(texts) FROM events"
            " WHERE owner = ?1 AND state = ?2 ORDER BY id");
        select.bind(1, owner_.token()).bind(2, std::int64_t{static_cast<int>(state)});
        while ((left.events > maxEvents || left.bytes > maxBytes) && select.step()) {
            oldest.push_back({select.number(0), std::nullopt});
            --left.events;
            left.bytes -= std::min(left.bytes, static_cast<std::size_t>(select.number(1)));
        }
    }
    std::vector<std::int64_t> none;
    return write({}, none, oldest) ? oldest.size() : 0;
}

bool QueueFile::clear() {
    try {
        Statement erase = file_->statement("DELETE FROM events WHERE owner = ?1");
        erase.bind(1, owner_.token());
        erase.step();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

}  // namespace NorvAnalytic
