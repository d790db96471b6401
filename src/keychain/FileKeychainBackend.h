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
// processes may share one file; a process that dies mid-write leaves the file intact.
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

    OSStatus copyMatching(const KeychainQuery& query, KeychainItemAttributes* result) override;
    OSStatus add(const KeychainQuery& attributes) override;
    OSStatus update(const KeychainQuery& query, const KeychainQuery& changes) override;
    OSStatus remove(const KeychainQuery& query) override;

private:
    struct StatementFinalizer {
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

    bool openIfNeeded();
    bool prepareFile() const;
    void close();

    std::filesystem::path path_;
    std::mutex mutex_;
    sqlite3* database_ = nullptr;
    Statement select_;
    Statement insert_;
    Statement update_;
    Statement delete_;
};

}  // namespace NorvAnalytic
