#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace NorvAnalytic {

// One SQLite file of ours: readable by its owner only, in WAL mode, patient with another
// process's writer, and checked once when opened. A file that is damaged, or whose tables are
// not the ones our statements use (a foreign database at our path), is moved aside to
// <name>.corrupt-<seconds>, said on the diagnostics sink, and a new one made: a fresh store beats
// one that fails every call for ever. One thread uses a file at a time.
class SqliteFile {
public:
    // What a file must hold to be ours.
    struct Layout {
        // Run on every opening: CREATE TABLE / INDEX IF NOT EXISTS …
        std::vector<std::string> schema;
        // Each table our statements use, with the columns they name.
        std::vector<std::pair<std::string, std::vector<std::string>>> tables;
    };
    struct Settings {
        // Names the file in diagnostics lines: "The keychain file".
        std::string description;
        // How long a statement waits for another process's write lock.
        std::chrono::milliseconds busyTimeout{5000};
        // The page cache: our files are small and read in order, so a little does.
        int cacheKiB = 256;
        // A deleted row's bytes are overwritten, not left in a free page.
        bool secureDelete = false;
    };

    // A prepared statement in use: reset and unbound when the use ends, so no read stays open
    // between calls. Bound texts and blobs are not copied: they must outlive the use.
    class Statement {
    public:
        explicit Statement(sqlite3_stmt* prepared) : prepared_(prepared) {}
        ~Statement();
        Statement(const Statement&) = delete;
        Statement& operator=(const Statement&) = delete;

        Statement& bind(int index, std::string_view text);
        Statement& bindBlob(int index, std::string_view bytes);
        Statement& bind(int index, std::int64_t number);
        Statement& bindNull(int index);
        // True for a row; false when done. Throws std::system_error on a failure.
        bool step();
        std::string text(int column) const;
        std::int64_t number(int column) const;
        bool isNull(int column) const;

    private:
        sqlite3_stmt* prepared_;
    };

    struct CheckpointResult {
        bool succeeded = false;
        // A reader or writer of another connection kept the journal from being emptied.
        bool busy = false;
    };

    // Opens or creates the file (and its directory) with mode 0600, tightening an existing
    // one's. Null when no file can be had; failure then receives why.
    static std::unique_ptr<SqliteFile> open(const std::filesystem::path& path, const Layout& layout,
                                            const Settings& settings,
                                            std::string* failure = nullptr);
    // The file and its journals.
    static void remove(const std::filesystem::path& path);
    // The files that damaged or foreign ones at path were moved aside to, journals included.
    static std::vector<std::filesystem::path> movedAside(const std::filesystem::path& path);

    ~SqliteFile();
    SqliteFile(const SqliteFile&) = delete;
    SqliteFile& operator=(const SqliteFile&) = delete;

    const std::filesystem::path& path() const { return path_; }
    sqlite3* handle() const { return database_; }
    // True when the statements ran.
    bool run(const char* sql);
    // Prepared once per file and kept; throws std::system_error when it cannot be.
    Statement statement(const char* sql);
    void setBusyTimeout(std::chrono::milliseconds timeout) { busyTimeout_ = timeout; }
    // Copies the journal into the file and cuts it to nothing.
    CheckpointResult checkpoint();
    // After fork(), in the child: the parent still uses this connection's locks and journal,
    // so the child neither closes nor uses it.
    void abandon();

private:
    SqliteFile(std::filesystem::path path, sqlite3* database, std::chrono::milliseconds busyTimeout);
    static int waitForOtherWriter(void* file, int attempt);

    std::filesystem::path path_;
    sqlite3* database_;
    std::chrono::milliseconds busyTimeout_;
    std::chrono::steady_clock::time_point waitingSince_;
    std::vector<std::pair<const char*, sqlite3_stmt*>> statements_;
};

}  // namespace NorvAnalytic
