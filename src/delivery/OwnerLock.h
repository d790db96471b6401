#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace NorvAnalytic {

// Which processes sharing a queue file are alive, told by the locks they hold and never by
// process ids, so it holds across PID namespaces (sandboxed desktop apps, containers on one
// volume) and without /proc. Beside queue-x.sqlite lies queue-x.lock. Each process holds an
// exclusive lock on one byte of its own there, at an offset named by its random token, for as
// long as it may own rows; and a shared lock on byte 0 while it has the queue file open, so that
// the file is deleted only by the last process using it. These are open-file-description locks:
// they die with their holder in any namespace, and a forked child does not inherit them as its own.
// One thread uses an OwnerLock at a time.
class OwnerLock {
public:
    // Opens (creating) the lock file for the queue file at path and takes this process's byte.
    // Null when the lock file cannot be had.
    static std::unique_ptr<OwnerLock> acquire(const std::filesystem::path& queueFile);
    ~OwnerLock();
    OwnerLock(const OwnerLock&) = delete;
    OwnerLock& operator=(const OwnerLock&) = delete;

    // What this process writes as the owner of its rows.
    const std::string& token() const { return token_; }
    // Whether the process that wrote owner as its token still holds its byte. Tokens of another
    // form (an older version's) belong to nobody alive.
    bool isAlive(std::string_view owner) const;
    // Marks the queue file as in use by this process, waiting while another deletes it.
    bool use();
    // True when no other process has the queue file in use; the file is then this process's
    // alone until stopUsing(), so it may be deleted.
    bool useAlone();
    void stopUsing();
    // In a forked child: the locks are the parent's, and stay held for it.
    void abandon();

private:
    OwnerLock(int descriptor, std::string token, long long offset);
    bool lockByte(short type, long long offset, bool wait);

    int descriptor_;
    std::string token_;
    long long offset_;
};

}  // namespace NorvAnalytic
