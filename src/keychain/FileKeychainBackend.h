#pragma once

#include <NorvAnalytic/KeychainBackend.h>

#include <filesystem>
#include <memory>
#include <mutex>

struct sqlite3;
struct sqlite3_stmt;

namespace NorvAnalytic {

// The default keychain on Linux: one SQLite file readable by its owner only, one row per
// generic-password item (account, service, access group). Several threads and several
// processes may share one file; a process that dies mid-write leaves the file intact. A forked
// child leaves the connection it inherited to the parent and opens its own.
class FileKeychainBackend final : public KeychainBackend {
public:
    // The file is opened on first use, so an unreachable path fails each call with
    // errSecInteractionNotAllowed instead of failing construction.
    explicit FileKeychainBackend(std::filesystem::path path = defaultPath());
    ~FileKeychainBackend() override;
    FileKeychainBackend(const FileKeychainBackend&) = delete;
    FileKeychainBackend& operator=(const FileKeychainBackend&) = delete;

    // $XDG_DATA_HOME/NorvAnalytic/keychain.sqlite, or ~/.local/share/... without it.
    static std::filesystem::path defaultPath();
    // Makes the missing directories of a path, each readable by its owner only.
    static bool makePrivateDirectories(const std::filesystem::path& directory);

    OSStatus copyMatching(const KeychainQuery& query, KeychainItemAttributes* result) override;
    OSStatus add(const KeychainQuery& attributes) override;
    OSStatus update(const KeychainQuery& query, const KeychainQuery& changes) override;
    OSStatus remove(const KeychainQuery& query) override;
    // BEGIN IMMEDIATE: the file's write lock is taken before the first read, so another
    // process's save cannot come between body's lookup and its write.
    OSStatus writeTransaction(const std::function<OSStatus()>& body) override;
    std::optional<std::chrono::milliseconds> identityRefreshInterval() const override;

    // Leaves no byte of a deleted item in the keychain's directory: rebuilds the file, empties
    // its journal and deletes the stores moved aside beside it. Waits for other processes'
    // readers and writers of the file (at most a few seconds each). False when any of it failed.
    bool scrub();

private:
    struct StatementFinalizer {
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

    bool openIfNeeded();
    // SQLITE_OK, or the SQLite code of the failure (SQLITE_NOTADB, SQLITE_CORRUPT: damaged).
    int open();
    // SQLITE_OK for a sound file; SQLITE_CORRUPT when the check finds damage.
    int quickCheck();
    // Renames a damaged file to <name>.corrupt-<seconds since 1970>, so a new one can start.
    bool moveAside();
    bool prepareFile() const;
    // Copies the journal into the file and empties it; false when a reader held it too long.
    bool checkpoint();
    void close();
    void abandonConnection();

    std::filesystem::path path_;
    // Recursive, so that the calls of a write transaction's body run under the lock it holds.
    // Owned, and replaced (never freed) in a forked child, where it may be held for good.
    std::recursive_mutex* mutex_;
    sqlite3* database_ = nullptr;
    Statement select_;
    Statement insert_;
    Statement update_;
    Statement delete_;
    bool reportedStuckDamage_ = false;
};

}  // namespace NorvAnalytic
