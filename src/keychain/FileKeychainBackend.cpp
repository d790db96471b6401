#include "keychain/FileKeychainBackend.h"

#include <pthread.h>
#include <sqlite3.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <set>
#include <system_error>
#include <vector>

#include "platform/Diagnostics.h"
#include "storage/DataDirectory.h"
#include "storage/SqliteFile.h"

namespace NorvAnalytic {

namespace {

// Without a watch on the directory, the file is read again this often: a local file's read
// costs microseconds.
constexpr std::chrono::milliseconds kIdentityRefreshInterval{500};

// What another process's save, delete, checkpoint or replacement of the file does to it and
// its journals.
constexpr std::uint32_t kWatchedChanges =
    IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;

// An item without an access group is kept under the empty group, so the three key columns
// can form the primary key that makes a duplicate add fail atomically across processes.
const SqliteFile::Layout kLayout{
    {"CREATE TABLE IF NOT EXISTS items ("
     " account TEXT NOT NULL,"
     " service TEXT NOT NULL,"
     " access_group TEXT NOT NULL,"
     " accessible INTEGER,"
     " value BLOB NOT NULL,"
     " PRIMARY KEY (account, service, access_group))"},
    {{"items", {"account", "service", "access_group", "accessible", "value"}}}};

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

// The live backends, so that a forked child can abandon the connections it inherited.
struct LiveBackends {
    std::mutex mutex;
    std::set<FileKeychainBackend*> backends;
};

LiveBackends& liveBackends() {
    static auto* live = new LiveBackends();
    return *live;
}

std::string_view bytesOf(const Data& data) {
    return {reinterpret_cast<const char*>(data.data()), data.size()};
}

void bindAccessible(SqliteFile::Statement& statement, int index,
                    const std::optional<KeychainItemAccessible>& accessible) {
    if (accessible) {
        statement.bind(index, std::int64_t{*accessible == KeychainItemAccessible::WhenUnlocked ? 0 : 1});
    } else {
        statement.bindNull(index);
    }
}

// Binds ?1 to ?3, the item's identity.
void bindIdentity(SqliteFile::Statement& statement, const KeychainQuery& query) {
    statement.bind(1, query.account).bind(2, query.service);
    if (query.accessGroup) {
        statement.bind(3, *query.accessGroup);
    } else {
        statement.bindNull(3);
    }
}

}  // namespace

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
                    backend->watchMutex_.lock();
                }
            },
            [] {
                auto& live = liveBackends();
                for (FileKeychainBackend* backend : live.backends) {
                    backend->watchMutex_.unlock();
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
    file_.reset();
    if (inotify_ >= 0) {
        ::close(inotify_);
    }
    delete mutex_;
}

// In a forked child. The parent still uses the connection's file and locks, and a thread of
// the parent's may have been inside it, holding the lock: the child neither closes nor uses
// any of it and opens its own on its next call.
void FileKeychainBackend::abandonConnection() {
    mutex_ = new std::recursive_mutex();
    if (file_) {
        file_->abandon();
        file_.reset();
    }
    // The inotify queue is shared with the parent, whose thread would take the child's events.
    if (inotify_ >= 0) {
        ::close(inotify_);
        inotify_ = -1;
        directoryWatch_ = -1;
    }
    watchMutex_.unlock();
}

std::filesystem::path FileKeychainBackend::defaultPath() {
    return DataDirectory::path() / "keychain.sqlite";
}

bool FileKeychainBackend::openIfNeeded() {
    if (file_) {
        return true;
    }
    std::string failure;
    file_ = SqliteFile::open(path_, kLayout, {.description = "The keychain file", .secureDelete = true},
                             &failure);
    if (!file_ && !reportedFailure_) {
        // Every later call tries again; once is enough for the host to hear of it.
        reportedFailure_ = true;
        Diagnostics::report(DiagnosticLevel::Error,
                            "The keychain file " + path_.string() + " cannot be used: " + failure + ".");
    }
    return file_ != nullptr;
}

OSStatus FileKeychainBackend::copyMatching(const KeychainQuery& query,
                                           KeychainItemAttributes* result) {
    const std::lock_guard lock(*mutex_);
    if (!openIfNeeded()) {
        return errSecInteractionNotAllowed;
    }
    try {
        SqliteFile::Statement select = file_->statement(kSelectSql);
        bindIdentity(select, query);
        if (!select.step()) {
            return errSecItemNotFound;
        }
        if (result != nullptr) {
            result->account = query.account;
            result->service = query.service;
            const std::string group = select.text(0);
            result->accessGroup = group.empty() ? std::nullopt : Text(group);
            result->accessible = std::nullopt;
            if (!select.isNull(1)) {
                result->accessible = select.number(1) == 0 ? KeychainItemAccessible::WhenUnlocked
                                                           : KeychainItemAccessible::AfterFirstUnlock;
            }
            const std::string value = select.text(2);
            result->valueData.assign(value.begin(), value.end());
        }
        return errSecSuccess;
    } catch (const std::system_error&) {
        return errSecInteractionNotAllowed;
    }
}

OSStatus FileKeychainBackend::add(const KeychainQuery& attributes) {
    const std::lock_guard lock(*mutex_);
    if (!openIfNeeded()) {
        return errSecInteractionNotAllowed;
    }
    const std::string accessGroup = attributes.accessGroup.value_or("");
    const Data value = attributes.valueData.value_or(Data{});
    try {
        SqliteFile::Statement insert = file_->statement(kInsertSql);
        insert.bind(1, attributes.account).bind(2, attributes.service).bind(3, accessGroup);
        bindAccessible(insert, 4, attributes.accessible);
        insert.bindBlob(5, bytesOf(value));
        insert.step();
        return errSecSuccess;
    } catch (const std::system_error& failure) {
        return failure.code().value() == SQLITE_CONSTRAINT_PRIMARYKEY ? errSecDuplicateItem
                                                                      : errSecInteractionNotAllowed;
    }
}

OSStatus FileKeychainBackend::update(const KeychainQuery& query, const KeychainQuery& changes) {
    const std::lock_guard lock(*mutex_);
    if (!openIfNeeded()) {
        return errSecInteractionNotAllowed;
    }
    try {
        SqliteFile::Statement update = file_->statement(kUpdateSql);
        bindIdentity(update, query);
        if (changes.valueData) {
            update.bindBlob(4, bytesOf(*changes.valueData));
        } else {
            update.bindNull(4);
        }
        bindAccessible(update, 5, changes.accessible);
        update.step();
    } catch (const std::system_error&) {
        return errSecInteractionNotAllowed;
    }
    return sqlite3_changes(file_->handle()) > 0 ? errSecSuccess : errSecItemNotFound;
}

OSStatus FileKeychainBackend::remove(const KeychainQuery& query) {
    const std::lock_guard lock(*mutex_);
    if (!openIfNeeded()) {
        return errSecInteractionNotAllowed;
    }
    try {
        SqliteFile::Statement erase = file_->statement(kDeleteSql);
        bindIdentity(erase, query);
        erase.step();
    } catch (const std::system_error&) {
        return errSecInteractionNotAllowed;
    }
    if (sqlite3_changes(file_->handle()) == 0) {
        return errSecItemNotFound;
    }
    // The journal still holds the item's pages as they were; emptied, it holds nothing of it.
    // The delete has committed whatever this answers.
    if (sqlite3_get_autocommit(file_->handle()) != 0) {
        checkpoint();
    }
    return errSecSuccess;
}

bool FileKeychainBackend::checkpoint() {
    const SqliteFile::CheckpointResult result = file_->checkpoint();
    return result.succeeded && !result.busy;
}

bool FileKeychainBackend::scrub() {
    const std::lock_guard lock(*mutex_);
    // Pages written before secure_delete was on, by this file's older writers, may still
    // hold a deleted item in free space; a rebuilt file holds only live items.
    bool scrubbed = openIfNeeded() && file_->run("VACUUM") && checkpoint();
    for (const auto& path : SqliteFile::movedAside(path_)) {
        scrubbed = (::unlink(path.c_str()) == 0 || errno == ENOENT) && scrubbed;
    }
    return scrubbed;
}

OSStatus FileKeychainBackend::writeTransaction(const std::function<OSStatus()>& body) {
    const std::lock_guard lock(*mutex_);
    if (!openIfNeeded() || !file_->run("BEGIN IMMEDIATE")) {
        return errSecInteractionNotAllowed;
    }
    OSStatus status = errSecInteractionNotAllowed;
    try {
        status = body();
    } catch (...) {
        file_->run("ROLLBACK");
        throw;
    }
    if (status == errSecSuccess && file_->run("COMMIT")) {
        return errSecSuccess;
    }
    file_->run("ROLLBACK");
    return status == errSecSuccess ? errSecInteractionNotAllowed : status;
}

std::optional<std::chrono::milliseconds> FileKeychainBackend::identityRefreshInterval() const {
    return kIdentityRefreshInterval;
}

int FileKeychainBackend::changeDescriptor() {
    const std::lock_guard lock(watchMutex_);
    if (inotify_ < 0) {
        inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    }
    if (inotify_ >= 0 && directoryWatch_ < 0) {
        const std::filesystem::path directory =
            path_.has_parent_path() ? path_.parent_path() : std::filesystem::path(".");
        directoryWatch_ = ::inotify_add_watch(inotify_, directory.c_str(), kWatchedChanges);
    }
    return directoryWatch_ >= 0 ? inotify_ : -1;
}

bool FileKeychainBackend::takeChanges() {
    const std::lock_guard lock(watchMutex_);
    const std::string name = path_.filename().string();
    bool changed = false;
    alignas(inotify_event) std::array<char, 4096> buffer{};
    ssize_t length = 0;
    while (inotify_ >= 0 && (length = ::read(inotify_, buffer.data(), buffer.size())) > 0) {
        for (ssize_t offset = 0; offset < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + offset);
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if ((event->mask & IN_IGNORED) != 0) {
                // The directory itself went: watched again once it is back.
                directoryWatch_ = -1;
                changed = true;
                continue;
            }
            // Our own files only; the queue files beside them change far more often.
            const std::string_view file = event->len > 0 ? event->name : "";
            changed = changed || (event->mask & IN_Q_OVERFLOW) != 0 || file == name ||
                      file == name + "-wal" || file == name + "-journal";
        }
    }
    return changed;
}

}  // namespace NorvAnalytic
