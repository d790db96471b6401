#include "keychain/FileKeychainBackend.h"

#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/Diagnostics.h"

namespace NorvAnalytic {

namespace {

// Another process holding the write lock is waited for this long before a call gives up.
constexpr std::chrono::seconds kBusyTimeout{5};

// Re-reading a local file costs microseconds, so other processes' changes show up quickly.
constexpr std::chrono::milliseconds kIdentityRefreshInterval{500};

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;

// An item without an access group is kept under the empty group, so the three key columns
// can form the primary key that makes a duplicate add fail atomically across processes.
constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS items ("
    " account TEXT NOT NULL,"
    " service TEXT NOT NULL,"
    " access_group TEXT NOT NULL,"
    " accessible INTEGER,"
    " value BLOB NOT NULL,"
    " PRIMARY KEY (account, service, access_group))";

// A query without an access group matches the item of any group.
constexpr const char* kSelectSql =
    "SELECT access_group, accessible, value FROM items"
    " WHERE account = ?1 AND service = ?2 AND (?3 IS NULL OR access_group = ?3)"
    " ORDER BY rowid LIMIT 1";
constexpr const char* kInsertSql =
    "INSERT INTO items (account, service, access_group, accessible, value)"
    " VALUES (?1, ?2, ?3, ?4, ?5)";
constexpr const char* kUpdateSql =
    "UPDATE items SET value = coalesce(?4, value), accessible = coalesce(?5, accessible)"
    " WHERE account = ?1 AND service = ?2 AND (?3 IS NULL OR access_group = ?3)";
constexpr const char* kDeleteSql =
    "DELETE FROM items"
    " WHERE account = ?1 AND service = ?2 AND (?3 IS NULL OR access_group = ?3)";

std::filesystem::path homeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
        return home;
    }
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return "/";
}

std::filesystem::path dataHome() {
    // Relative values are invalid for XDG variables and must be ignored.
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/') {
        return xdg;
    }
    return homeDirectory() / ".local" / "share";
}

// Widens nothing: only group and other bits are taken away from an existing path.
bool tighten(int descriptor, mode_t wanted) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) {
        return false;
    }
    if ((status.st_mode & 077) == 0) {
        return true;
    }
    return ::fchmod(descriptor, status.st_mode & wanted & 07777) == 0;
}

bool tightenPath(const std::filesystem::path& path, int flags, mode_t wanted) {
    const int descriptor = ::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, kFileMode);
    if (descriptor < 0) {
        return false;
    }
    const bool tightened = tighten(descriptor, wanted);
    ::close(descriptor);
    return tightened;
}

// Another process's writes last microseconds, so its lock is polled in short naps; SQLite's
// own busy timeout backs off to naps of 100 ms and left saves waiting far longer than needed.
int waitForOtherWriter(void*, int attempt) {
    thread_local std::chrono::steady_clock::time_point waitingSince;
    const auto now = std::chrono::steady_clock::now();
    if (attempt == 0) {
        waitingSince = now;
    }
    if (now - waitingSince > kBusyTimeout) {
        return 0;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(20 << std::min(attempt, 6)));
    return 1;
}

// Sets a fresh file up. Two processes opening one at the same instant can meet in SQLite's
// lock escalation, where it answers SQLITE_BUSY at once without asking the busy handler: such a
// statement is tried again, as patiently as any other wait for a writer.
bool runSetup(sqlite3* database, const char* sql) {
    const auto start = std::chrono::steady_clock::now();
    for (int attempt = 0;; ++attempt) {
        const int status = sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
        if (status != SQLITE_BUSY || std::chrono::steady_clock::now() - start > kBusyTimeout) {
            return status == SQLITE_OK;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(20 << std::min(attempt, 9)));
    }
}

// The live backends, so that a forked child can abandon the connections it inherited.
struct LiveBackends {
    std::mutex mutex;
    std::set<FileKeychainBackend*> backends;
};

LiveBackends& liveBackends() {
    static auto* live = new LiveBackends();
    return *live;
}

int accessibleCode(KeychainItemAccessible accessible) {
    return accessible == KeychainItemAccessible::WhenUnlocked ? 0 : 1;
}

void bindText(sqlite3_stmt* statement, int index, const std::string& text) {
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()),
                      SQLITE_TRANSIENT);
}

void bindOptionalText(sqlite3_stmt* statement, int index, const Text& text) {
    if (text) {
        bindText(statement, index, *text);
    } else {
        sqlite3_bind_null(statement, index);
    }
}

void bindBlob(sqlite3_stmt* statement, int index, const Data& data) {
    // A null pointer would bind SQL NULL, so an empty payload is bound as an empty blob.
    if (data.empty()) {
        sqlite3_bind_zeroblob(statement, index, 0);
    } else {
        sqlite3_bind_blob(statement, index, data.data(), static_cast<int>(data.size()),
                          SQLITE_TRANSIENT);
    }
}

void bindAccessible(sqlite3_stmt* statement, int index,
                    const std::optional<KeychainItemAccessible>& accessible) {
    if (accessible) {
        sqlite3_bind_int(statement, index, accessibleCode(*accessible));
    } else {
        sqlite3_bind_null(statement, index);
    }
}

// Binds ?1 to ?3, the item's identity, and leaves the statement to be reset by the caller.
void bindIdentity(sqlite3_stmt* statement, const KeychainQuery& query) {
    bindText(statement, 1, query.account);
    bindText(statement, 2, query.service);
    bindOptionalText(statement, 3, query.accessGroup);
}

// Resets a cached statement however its call ends, so it holds no read lock between calls.
class StatementUse {
public:
    explicit StatementUse(sqlite3_stmt* statement) : statement_(statement) {}
    ~StatementUse() {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }
    StatementUse(const StatementUse&) = delete;
    StatementUse& operator=(const StatementUse&) = delete;

private:
    sqlite3_stmt* statement_;
};

}  // namespace

void FileKeychainBackend::StatementFinalizer::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

FileKeychainBackend::FileKeychainBackend(std::filesystem::path path)
    : path_(std::move(path)), mutex_(new std::recursive_mutex()) {
    static std::once_flag registered;
    std::call_once(registered, [] {
        // No thread of ours is inside SQLite at the fork: one that held a lock of SQLite's
        // own there would leave it held for good in the child.
        pthread_atfork(
            [] {
                auto& live = liveBackends();
                live.mutex.lock();
                for (FileKeychainBackend* backend : live.backends) {
                    backend->mutex_->lock();
                }
            },
            [] {
                auto& live = liveBackends();
                for (FileKeychainBackend* backend : live.backends) {
                    backend->mutex_->unlock();
                }
                live.mutex.unlock();
            },
            [] {
                auto& live = liveBackends();
                for (FileKeychainBackend* backend : live.backends) {
                    backend->abandonConnection();
                }
                live.mutex.unlock();
            });
    });
    const std::lock_guard lock(liveBackends().mutex);
    liveBackends().backends.insert(this);
}

FileKeychainBackend::~FileKeychainBackend() {
    {
        const std::lock_guard lock(liveBackends().mutex);
        liveBackends().backends.erase(this);
    }
    close();
    delete mutex_;
}

// In a forked child. The parent still uses the connection's file and locks, and a thread of
// the parent's may have been inside it, holding the lock: the child neither closes nor uses
// any of it and opens its own on its next call.
void FileKeychainBackend::abandonConnection() {
    mutex_ = new std::recursive_mutex();
    (void)select_.release();
    (void)insert_.release();
    (void)update_.release();
    (void)delete_.release();
    database_ = nullptr;
}

bool FileKeychainBackend::makePrivateDirectories(const std::filesystem::path& directory) {
    std::filesystem::path partial;
    for (const auto& component : directory) {
        partial /= component;
        if (::mkdir(partial.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

std::filesystem::path FileKeychainBackend::defaultPath() {
    return dataHome() / "NorvAnalytic" / "keychain.sqlite";
}

bool FileKeychainBackend::prepareFile() const {
    const std::filesystem::path directory = path_.parent_path();
    if (!directory.empty() && (!makePrivateDirectories(directory) ||
                               !tightenPath(directory, O_RDONLY | O_DIRECTORY, kDirectoryMode))) {
        return false;
    }
    // Created here rather than by SQLite so that it never exists with a wider mode; SQLite
    // gives its journal files the mode of the database file.
    return tightenPath(path_, O_RDWR | O_CREAT, kFileMode);
}

bool FileKeychainBackend::openIfNeeded() {
    if (database_ != nullptr) {
        return true;
    }
    if (!prepareFile()) {
        return false;
    }
    const int opened = open();
    if (opened == SQLITE_NOTADB || opened == SQLITE_CORRUPT) {
        // Another UUID is better than none on every event, and the bytes stay for a look.
        return moveAside() && prepareFile() && open() == SQLITE_OK;
    }
    return opened == SQLITE_OK;
}

int FileKeychainBackend::open() {
    if (sqlite3_open_v2(path_.c_str(), &database_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        close();
        return SQLITE_CANTOPEN;
    }
    sqlite3_busy_handler(database_, waitForOtherWriter, nullptr);
    const auto run = [this](const char* sql) { return runSetup(database_, sql); };
    // WAL lets readers in other processes go on while one writes; a killed writer leaves an
    // uncommitted tail that the next opener discards. NORMAL sync keeps the file consistent
    // through crashes and only risks the last commits on power loss.
    const int checked = quickCheck();
    if (checked != SQLITE_OK) {
        close();
        return checked;
    }
    // secure_delete: a deleted item's bytes are overwritten, not left in a free page.
    if (!run("PRAGMA journal_mode = WAL") || !run("PRAGMA synchronous = NORMAL") ||
        !run("PRAGMA secure_delete = ON") || !run(kSchema)) {
        const int failure = sqlite3_errcode(database_);
        close();
        return failure;
    }
    const auto prepare = [this](const char* sql, Statement& statement) {
        sqlite3_stmt* prepared = nullptr;
        const int status =
            sqlite3_prepare_v3(database_, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
        statement.reset(prepared);
        return status == SQLITE_OK;
    };
    if (!prepare(kSelectSql, select_) || !prepare(kInsertSql, insert_) ||
        !prepare(kUpdateSql, update_) || !prepare(kDeleteSql, delete_)) {
        close();
        return SQLITE_ERROR;
    }
    return SQLITE_OK;
}

// A damaged page shows here, once per opening, rather than as a failure of some later read.
int FileKeychainBackend::quickCheck() {
    sqlite3_stmt* prepared = nullptr;
    if (sqlite3_prepare_v2(database_, "PRAGMA quick_check", -1, &prepared, nullptr) != SQLITE_OK) {
        return sqlite3_errcode(database_);
    }
    const Statement check(prepared);
    if (sqlite3_step(check.get()) != SQLITE_ROW) {
        return sqlite3_errcode(database_);
    }
    const auto* verdict = reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0));
    return verdict != nullptr && std::string_view(verdict) == "ok" ? SQLITE_OK : SQLITE_CORRUPT;
}

bool FileKeychainBackend::moveAside() {
    std::array<char, 24> seconds{};
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    const auto end = std::to_chars(seconds.data(), seconds.data() + seconds.size(), now).ptr;
    const std::string aside = path_.string() + ".corrupt-" + std::string(seconds.data(), end);
    if (::rename(path_.c_str(), aside.c_str()) != 0) {
        // Every later call tries again; once is enough for the host to hear of it.
        if (!reportedStuckDamage_) {
            reportedStuckDamage_ = true;
            Diagnostics::report(DiagnosticLevel::Error,
                                "The keychain file " + path_.string() +
                                    " is not a sound database and could not be moved aside.");
        }
        return false;
    }
    // A journal left beside the old file must not be replayed into the new one.
    for (const char* suffix : {"-wal", "-shm"}) {
        ::rename((path_.string() + suffix).c_str(), (aside + suffix).c_str());
    }
    Diagnostics::report(DiagnosticLevel::Error, "The keychain file " + path_.string() +
                                                    " was not a sound database: moved aside to " +
                                                    aside + " and a new one started.");
    return true;
}

void FileKeychainBackend::close() {
    select_.reset();
    insert_.reset();
    update_.reset();
    delete_.reset();
    if (database_ != nullptr) {
        sqlite3_close(database_);
        database_ = nullptr;
    }
}

OSStatus FileKeychainBackend::copyMatching(const KeychainQuery& query,
                                           KeychainItemAttributes* result) {
    const std::lock_guard lock(*mutex_);
    if (!openIfNeeded()) {
        return errSecInteractionNotAllowed;
    }
    sqlite3_stmt* statement = select_.get();
    const StatementUse use(statement);
    bindIdentity(statement, query);
    const int step = sqlite3_step(statement);
    if (step == SQLITE_DONE) {
        return errSecItemNotFound;
    }
    if (step != SQLITE_ROW) {
        return errSecInteractionNotAllowed;
    }
    if (result != nullptr) {
        result->account = query.account;
        result->service = query.service;
        const auto* group = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
        const int groupSize = sqlite3_column_bytes(statement, 0);
        result->accessGroup = groupSize > 0
                                  ? Text(std::string(group, static_cast<std::size_t>(groupSize)))
                                  : std::nullopt;
        result->accessible = std::nullopt;
        if (sqlite3_column_type(statement, 1) != SQLITE_NULL) {
            result->accessible = sqlite3_column_int(statement, 1) == 0
                                     ? KeychainItemAccessible::WhenUnlocked
                                     : KeychainItemAccessible::AfterFirstUnlock;
        }
        const auto* value = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, 2));
        const int valueSize = sqlite3_column_bytes(statement, 2);
        result->valueData.assign(value, value + valueSize);
    }
    return errSecSuccess;
}

OSStatus FileKeychainBackend::add(const KeychainQuery& attributes) {
    const std::lock_guard lock(*mutex_);
    if (!openIfNeeded()) {
        return errSecInteractionNotAllowed;
    }
    sqlite3_stmt* statement = insert_.get();
    const StatementUse use(statement);
    bindText(statement, 1, attributes.account);
    bindText(statement, 2, attributes.service);
    bindText(statement, 3, attributes.accessGroup.value_or(""));
    bindAccessible(statement, 4, attributes.accessible);
    bindBlob(statement, 5, attributes.valueData.value_or(Data{}));
    const int step = sqlite3_step(statement);
    if (step == SQLITE_DONE) {
        return errSecSuccess;
    }
    if (sqlite3_extended_errcode(database_) == SQLITE_CONSTRAINT_PRIMARYKEY) {
        return errSecDuplicateItem;
    }
    return errSecInteractionNotAllowed;
}

OSStatus FileKeychainBackend::update(const KeychainQuery& query, const KeychainQuery& changes) {
    const std::lock_guard lock(*mutex_);
    if (!openIfNeeded()) {
        return errSecInteractionNotAllowed;
    }
    sqlite3_stmt* statement = update_.get();
    const StatementUse use(statement);
    bindIdentity(statement, query);
    if (changes.valueData) {
        bindBlob(statement, 4, *changes.valueData);
    } else {
        sqlite3_bind_null(statement, 4);
    }
    bindAccessible(statement, 5, changes.accessible);
    if (sqlite3_step(statement) != SQLITE_DONE) {
        return errSecInteractionNotAllowed;
    }
    return sqlite3_changes(database_) > 0 ? errSecSuccess : errSecItemNotFound;
}

OSStatus FileKeychainBackend::remove(const KeychainQuery& query) {
    const std::lock_guard lock(*mutex_);
    if (!openIfNeeded()) {
        return errSecInteractionNotAllowed;
    }
    sqlite3_stmt* statement = delete_.get();
    const StatementUse use(statement);
    bindIdentity(statement, query);
    if (sqlite3_step(statement) != SQLITE_DONE) {
        return errSecInteractionNotAllowed;
    }
    if (sqlite3_changes(database_) == 0) {
        return errSecItemNotFound;
    }
    // The journal still holds the item's pages as they were; emptied, it holds nothing of it.
    // The delete has committed whatever this answers.
    if (sqlite3_get_autocommit(database_) != 0) {
        checkpoint();
    }
    return errSecSuccess;
}

bool FileKeychainBackend::checkpoint() {
    return sqlite3_wal_checkpoint_v2(database_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr,
                                     nullptr) == SQLITE_OK;
}

bool FileKeychainBackend::scrub() {
    const std::lock_guard lock(*mutex_);
    // Pages written before secure_delete was on, by this file's older writers, may still
    // hold a deleted item in free space; a rebuilt file holds only live items.
    bool scrubbed = openIfNeeded() && runSetup(database_, "VACUUM") && checkpoint();
    const std::filesystem::path directory =
        path_.has_parent_path() ? path_.parent_path() : std::filesystem::path(".");
    const std::string aside = path_.filename().string() + ".corrupt-";
    std::vector<std::filesystem::path> found;
    std::error_code error;
    for (auto entry = std::filesystem::directory_iterator(directory, error);
         !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        if (entry->path().filename().string().starts_with(aside)) {
            found.push_back(entry->path());
        }
    }
    scrubbed = scrubbed && !error;
    for (const auto& path : found) {
        scrubbed = (::unlink(path.c_str()) == 0 || errno == ENOENT) && scrubbed;
    }
    return scrubbed;
}

OSStatus FileKeychainBackend::writeTransaction(const std::function<OSStatus()>& body) {
    const std::lock_guard lock(*mutex_);
    if (!openIfNeeded() ||
        sqlite3_exec(database_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
        return errSecInteractionNotAllowed;
    }
    OSStatus status = errSecInteractionNotAllowed;
    try {
        status = body();
    } catch (...) {
        sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
    if (status == errSecSuccess &&
        sqlite3_exec(database_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK) {
        return errSecSuccess;
    }
    sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
    return status == errSecSuccess ? errSecInteractionNotAllowed : status;
}

std::optional<std::chrono::milliseconds> FileKeychainBackend::identityRefreshInterval() const {
    return kIdentityRefreshInterval;
}

}  // namespace NorvAnalytic
