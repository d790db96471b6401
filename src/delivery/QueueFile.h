#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace NorvAnalytic {

class SqliteFile;

// One host's persisted events: an SQLite file (WAL) beside the keychain. Each row belongs to
// one process, named by its pid and start time, and only that process sends it; a process
// takes over the rows of processes that have ended in a transaction, so two processes never
// both send one. One thread uses an open file at a time.
class QueueFile {
public:
    enum class State : int {
        // Accepted, not answered yet.
        Pending = 0,
        // Refused by the server and kept for resending.
        Refused = 1,
        // Its request got no answer at all; sent again once the network is back.
        Unanswered = 2,
    };
    struct Row {
        std::int64_t id = 0;
        std::string url;
        std::string body;
        std::string texts;
        bool isSavedEvent = false;
    };
    struct Change {
        std::int64_t id = 0;
        // Deleted when empty.
        std::optional<State> state;
    };
    struct Counts {
        std::size_t events = 0;
        std::size_t bytes = 0;
    };

    // queue-<bundle identifier>.sqlite in the data directory, queue.sqlite without one.
    static std::filesystem::path pathFor(const std::string& bundleIdentifier);
    // Opens or creates the file, readable by its owner only; a damaged one is moved aside,
    // reported, and replaced. Null (reported) when no file can be had.
    static std::unique_ptr<QueueFile> open(const std::filesystem::path& path);
    // Every queue file in directory: rows deleted, freed pages zeroed, journal truncated;
    // moved-aside ones deleted. Any thread, with connections of its own.
    static void eraseAll(const std::filesystem::path& directory);
    // The file and its journals.
    static void remove(const std::filesystem::path& path);
    ~QueueFile();
    QueueFile(const QueueFile&) = delete;
    QueueFile& operator=(const QueueFile&) = delete;

    // Takes over the rows of ended processes as pending ones, a refused one as a resend.
    // Returns the ids of every pending row of this process, oldest first.
    std::vector<std::int64_t> claimOrphans();
    // In one transaction: adds rows (pending, owned by this process; their ids in order into
    // ids) and applies changes. False, with nothing written, when the file refuses.
    bool write(const std::vector<Row>& rows, std::vector<std::int64_t>& ids,
               const std::vector<Change>& changes);
    // This process's rows in state with an id above afterId, oldest first.
    std::vector<Row> read(State state, std::int64_t afterId, std::size_t limit);
    // Deletes the oldest of this process's rows in state (above afterId) until at most
    // maxEvents of maxBytes are left; returns how many went.
    std::size_t trim(State state, std::int64_t afterId, std::size_t maxEvents, std::size_t maxBytes);
    Counts count(State state);
    // Every row of this process.
    void clear();

private:
    // A prepared statement in use: reset when it goes, so no read stays open between calls.
    class Statement {
    public:
        explicit Statement(sqlite3_stmt* prepared) : prepared_(prepared) {}
        ~Statement();
        Statement(const Statement&) = delete;
        Statement& operator=(const Statement&) = delete;
        operator sqlite3_stmt*() const { return prepared_; }

    private:
        sqlite3_stmt* prepared_;
    };

    QueueFile(std::unique_ptr<SqliteFile> file, std::string owner);
    bool run(const char* sql);
    Statement statement(const char* sql);

    std::unique_ptr<SqliteFile> file_;
    sqlite3* database_;
    std::string owner_;
    std::vector<std::pair<const char*, sqlite3_stmt*>> statements_;
};

}  // namespace NorvAnalytic
