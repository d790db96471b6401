#include "storage/SqliteFile.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <system_error>
#include <thread>

#include "platform/Diagnostics.h"
#include "storage/DataDirectory.h"

namespace NorvAnalytic {

namespace {

enum class Verdict { Ours, Damaged, Failed };

std::string secondsNow() {
    std::array<char, 24> digits{};
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    return std::string(digits.data(),
                       std::to_chars(digits.data(), digits.data() + digits.size(), now).ptr);
}

// Two processes opening one fresh file at the same instant can meet in SQLite's lock
// escalation, where it answers SQLITE_BUSY without asking the busy handler: such a set-up
// statement is tried again, as patiently as any other wait for a writer.
int runSetup(sqlite3* database, const std::string& sql, std::chrono::milliseconds patience) {
    const auto start = std::chrono::steady_clock::now();
    for (int attempt = 0;; ++attempt) {
        const int status = sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr);
        if (status != SQLITE_BUSY || std::chrono::steady_clock::now() - start > patience) {
            return status;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(20 << std::min(attempt, 9)));
    }
}

// A damaged page shows here, once per opening, rather than as a failure of some later read.
Verdict quickCheck(sqlite3* database) {
    sqlite3_stmt* check = nullptr;
    if (sqlite3_prepare_v2(database, "PRAGMA quick_check", -1, &check, nullptr) != SQLITE_OK) {
        const int code = sqlite3_errcode(database);
        return code == SQLITE_NOTADB || code == SQLITE_CORRUPT ? Verdict::Damaged : Verdict::Failed;
    }
    const int step = sqlite3_step(check);
    const auto* verdict = reinterpret_cast<const char*>(sqlite3_column_text(check, 0));
    const bool sound = step == SQLITE_ROW && verdict != nullptr && std::string_view(verdict) == "ok";
    const int code = sqlite3_errcode(database);
    sqlite3_finalize(check);
    if (sound) {
        return Verdict::Ours;
    }
    return step == SQLITE_ROW || code == SQLITE_NOTADB || code == SQLITE_CORRUPT ? Verdict::Damaged
                                                                                : Verdict::Failed;
}

// A table of ours that exists without a column our statements name was made by someone else.
bool hasOurTables(sqlite3* database, const SqliteFile::Layout& layout) {
    for (const auto& [table, columns] : layout.tables) {
        sqlite3_stmt* info = nullptr;
        if (sqlite3_prepare_v2(database, "SELECT name FROM pragma_table_info(?1)", -1, &info,
                               nullptr) != SQLITE_OK) {
            return false;
        }
        sqlite3_bind_text(info, 1, table.data(), static_cast<int>(table.size()), SQLITE_STATIC);
        std::vector<std::string> found;
        while (sqlite3_step(info) == SQLITE_ROW) {
            found.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(info, 0)));
        }
        sqlite3_finalize(info);
        const bool complete = std::ranges::all_of(columns, [&](const std::string& column) {
            return std::ranges::find(found, column) != found.end();
        });
        if (!found.empty() && !complete) {
            return false;
        }
    }
    return true;
}

}  // namespace

SqliteFile::Statement::~Statement() {
    sqlite3_reset(prepared_);
    sqlite3_clear_bindings(prepared_);
}

SqliteFile::Statement& SqliteFile::Statement::bind(int index, std::string_view text) {
    sqlite3_bind_text(prepared_, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    return *this;
}

SqliteFile::Statement& SqliteFile::Statement::bindBlob(int index, std::string_view bytes) {
    // A null pointer would bind SQL NULL, so an empty payload is bound as an empty blob.
    if (bytes.empty()) {
        sqlite3_bind_zeroblob(prepared_, index, 0);
    } else {
        sqlite3_bind_blob(prepared_, index, bytes.data(), static_cast<int>(bytes.size()),
                          SQLITE_STATIC);
    }
    return *this;
}

SqliteFile::Statement& SqliteFile::Statement::bind(int index, std::int64_t number) {
    sqlite3_bind_int64(prepared_, index, number);
    return *this;
}

SqliteFile::Statement& SqliteFile::Statement::bindNull(int index) {
    sqlite3_bind_null(prepared_, index);
    return *this;
}

bool SqliteFile::Statement::step() {
    const int status = sqlite3_step(prepared_);
    if (status == SQLITE_ROW) {
        return true;
    }
    if (status == SQLITE_DONE) {
        return false;
    }
    sqlite3* database = sqlite3_db_handle(prepared_);
    throw std::system_error(std::error_code(sqlite3_extended_errcode(database), std::generic_category()),
                            sqlite3_errmsg(database));
}

std::string SqliteFile::Statement::text(int column) const {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(prepared_, column));
    return bytes ? std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(prepared_, column)))
                 : std::string();
}

std::int64_t SqliteFile::Statement::number(int column) const {
    return sqlite3_column_int64(prepared_, column);
}

bool SqliteFile::Statement::isNull(int column) const {
    return sqlite3_column_type(prepared_, column) == SQLITE_NULL;
}

std::unique_ptr<SqliteFile> SqliteFile::open(const std::filesystem::path& path,
                                             const Layout& layout, const Settings& settings,
                                             std::string* failure) {
    const auto fail = [&](const std::string& why) {
        if (failure != nullptr) {
            *failure = why;
        }
        return nullptr;
    };
    if (!DataDirectory::makePrivate(path.parent_path())) {
        return fail("its directory cannot be made private to its owner");
    }
    for (int attempt = 0; attempt < 2; ++attempt) {
        // Created here with its mode, so it never exists readable by others; SQLite gives its
        // journals the file's mode.
        if (!DataDirectory::makePrivateFile(path)) {
            return fail("it cannot be made private to its owner");
        }
        sqlite3* database = nullptr;
        if (sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                            nullptr) != SQLITE_OK) {
            sqlite3_close_v2(database);
            return fail("it cannot be opened");
        }
        std::unique_ptr<SqliteFile> file(new SqliteFile(path, database, settings.busyTimeout));
        Verdict verdict = quickCheck(database);
        if (verdict == Verdict::Ours && !hasOurTables(database, layout)) {
            verdict = Verdict::Damaged;
        }
        if (verdict == Verdict::Ours) {
            // WAL: readers in other processes go on while one writes, and a killed writer's
            // uncommitted tail is discarded by the next opener. NORMAL sync keeps every commit
            // through a crash of the process; only a power loss can take the last ones.
            std::vector<std::string> setup = {"PRAGMA journal_mode = WAL",
                                              "PRAGMA synchronous = NORMAL",
                                              "PRAGMA temp_store = MEMORY",
                                              "PRAGMA cache_size = -" + std::to_string(settings.cacheKiB)};
            if (settings.secureDelete) {
                setup.emplace_back("PRAGMA secure_delete = ON");
            }
            setup.insert(setup.end(), layout.schema.begin(), layout.schema.end());
            int status = SQLITE_OK;
            for (const std::string& sql : setup) {
                if (status == SQLITE_OK) {
                    status = runSetup(database, sql, settings.busyTimeout);
                }
            }
            if (status == SQLITE_OK) {
                return file;
            }
            if (status != SQLITE_NOTADB && status != SQLITE_CORRUPT) {
                return fail(sqlite3_errstr(status));
            }
            verdict = Verdict::Damaged;
        }
        file.reset();
        if (verdict == Verdict::Failed) {
            return fail("it cannot be read");
        }
        if (attempt > 0) {
            break;
        }
        const std::string aside = path.string() + ".corrupt-" + secondsNow();
        std::error_code error;
        std::filesystem::rename(path, aside, error);
        if (error) {
            return fail("it is not a sound database of ours and cannot be moved aside");
        }
        // A journal left beside the old file must not be replayed into the new one.
        for (const char* suffix : {"-wal", "-shm"}) {
            std::error_code ignored;
            std::filesystem::rename(path.string() + suffix, aside + suffix, ignored);
        }
        Diagnostics::report(DiagnosticLevel::Error,
                            settings.description + " " + path.string() +
                                " was not a sound database of ours: moved aside to " + aside +
                                " and a new one started.");
    }
    return fail("a new file is not sound either");
}

void SqliteFile::remove(const std::filesystem::path& path) {
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::error_code ignored;
        std::filesystem::remove(path.string() + suffix, ignored);
    }
}

std::vector<std::filesystem::path> SqliteFile::movedAside(const std::filesystem::path& path) {
    const std::filesystem::path directory =
        path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    const std::string prefix = path.filename().string() + ".corrupt-";
    std::vector<std::filesystem::path> found;
    std::error_code error;
    for (auto entry = std::filesystem::directory_iterator(directory, error);
         !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        if (entry->path().filename().string().starts_with(prefix)) {
            found.push_back(entry->path());
        }
    }
    return found;
}

SqliteFile::SqliteFile(std::filesystem::path path, sqlite3* database,
                       std::chrono::milliseconds busyTimeout)
    : path_(std::move(path)), database_(database), busyTimeout_(busyTimeout) {
    sqlite3_busy_handler(database_, &SqliteFile::waitForOtherWriter, this);
}

SqliteFile::~SqliteFile() {
    for (const auto& [sql, prepared] : statements_) {
        sqlite3_finalize(prepared);
    }
    if (database_ != nullptr) {
        sqlite3_close_v2(database_);
    }
}

void SqliteFile::abandon() {
    statements_.clear();
    database_ = nullptr;
}

// Another process's writes last microseconds, so its lock is polled in short naps; SQLite's
// own busy timeout backs off to naps of 100 ms and leaves writers waiting far longer than needed.
int SqliteFile::waitForOtherWriter(void* opened, int attempt) {
    auto* file = static_cast<SqliteFile*>(opened);
    const auto now = std::chrono::steady_clock::now();
    if (attempt == 0) {
        file->waitingSince_ = now;
    }
    if (now - file->waitingSince_ >= file->busyTimeout_) {
        return 0;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(20 << std::min(attempt, 9)));
    return 1;
}

bool SqliteFile::run(const char* sql) {
    return sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

SqliteFile::Statement SqliteFile::statement(const char* sql) {
    for (const auto& [text, prepared] : statements_) {
        if (text == sql) {
            return Statement(prepared);
        }
    }
    sqlite3_stmt* prepared = nullptr;
    if (sqlite3_prepare_v3(database_, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr) !=
        SQLITE_OK) {
        throw std::system_error(std::error_code(sqlite3_errcode(database_), std::generic_category()),
                                sqlite3_errmsg(database_));
    }
    statements_.emplace_back(sql, prepared);
    return Statement(prepared);
}

SqliteFile::CheckpointResult SqliteFile::checkpoint() {
    // The "busy" column says whether another connection kept the journal from being emptied;
    // the call itself succeeds all the same.
    int framesInJournal = 0;
    int framesCopied = 0;
    const int status = sqlite3_wal_checkpoint_v2(database_, nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                                 &framesInJournal, &framesCopied);
    return {status == SQLITE_OK, status == SQLITE_BUSY || framesCopied < framesInJournal};
}

}  // namespace NorvAnalytic
