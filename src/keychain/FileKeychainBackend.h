#pragma once

#include <NorvAnalytic/KeychainBackend.h>

#include <filesystem>
#include <memory>
#include <mutex>

#include "keychain/StoreChangeWatch.h"

namespace NorvAnalytic {

class SqliteFile;

// The default keychain on Linux: one SQLite file readable by its owner only, one row per
// generic-password item (account, service, access group). Several threads and several
// processes may share one file; a process that dies mid-write leaves the file intact. A forked
// child leaves the connection it inherited to the parent and opens its own. Writes to the file
// by any process are told through an inotify watch on its directory.
class FileKeychainBackend final : public KeychainBackend, public StoreChangeWatch {
public:
    // The file is opened on first use, so an unreachable path fails each call with
    // errSecInteractionNotAllowed instead of failing construction.
    explicit FileKeychainBackend(std::filesystem::path path = defaultPath());
    ~FileKeychainBackend() override;
    FileKeychainBackend(const FileKeychainBackend&) = delete;
    FileKeychainBackend& operator=(const FileKeychainBackend&) = delete;

    // keychain.sqlite in the data directory.
    static std::filesystem::path defaultPath();

    OSStatus copyMatching(const KeychainQuery& query, KeychainItemAttributes* result) override;
    OSStatus add(const KeychainQuery& attributes) override;
    OSStatus update(const KeychainQuery& query, const KeychainQuery& changes) override;
    OSStatus remove(const KeychainQuery& query) override;
    // BEGIN IMMEDIATE: the file's write lock is taken before the first read, so another
    // process's save cannot come between body's lookup and its write.
    OSStatus writeTransaction(const std::function<OSStatus()>& body) override;
    // Only while the directory cannot be watched: another process's change is told otherwise.
    std::optional<std::chrono::milliseconds> identityRefreshInterval() const override;
    int changeDescriptor() override;
    bool takeChanges() override;

    // Leaves no byte of a deleted item in the keychain's directory: rebuilds the file, empties
    // its journal and deletes the stores moved aside beside it. Waits for other processes'
    // readers and writers of the file (at most a few seconds each). False when any of it failed.
    bool scrub();

private:
    // A damaged or foreign file is moved aside and a new one made: another UUID is better than
    // none on every event, and the old bytes stay for a look.
    bool openIfNeeded();
    // Copies the journal into the file and empties it; false when a reader held it too long.
    bool checkpoint();
    void abandonConnection();

    std::filesystem::path path_;
    // Recursive, so that the calls of a write transaction's body run under the lock it holds.
    // Owned, and replaced (never freed) in a forked child, where it may be held for good.
    std::recursive_mutex* mutex_;
    std::unique_ptr<SqliteFile> file_;
    bool reportedFailure_ = false;
    // The inotify descriptor, open for the backend's life, and its watch on the directory
    // (-1 while there is none).
    std::mutex watchMutex_;
    int inotify_ = -1;
    int directoryWatch_ = -1;
};

}  // namespace NorvAnalytic
