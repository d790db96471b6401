#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace NorvAnalytic {

class OwnerLock;
class SqliteFile;

// The rows of one host's queue file: an SQLite file (WAL) in the data directory. Each row belongs
// to one process, named by the token of its OwnerLock, and only that process sends it; a process
// takes over the rows of processes whose lock is gone in one transaction, so two processes never
// both send a row. Only what SQL does lives here; the journal decides when. One thread at a time.
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
        // Its idempotency key; empty when keys were off.
        std::string eventId;
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
    // The file of the host's main bundle.
    static std::filesystem::path pathForMainBundle();
    // Opens or creates the file for the process that holds owner. Rows this process left in an
    // earlier opening are deleted: they were sent from memory or discarded since. A damaged or
    // foreign file is moved aside, reported, and replaced; null (reported) when no file can be had.
    static std::unique_ptr<QueueFile> open(const std::filesystem::path& path, const OwnerLock& owner);
    // Every queue file in directory: rows deleted, freed pages zeroed, journal truncated; moved-aside
    // ones deleted. Any thread, with connections of its own. False (and said on the diagnostics
    // sink) when a file could not be cleared or its journal not emptied.
    static bool eraseAll(const std::filesystem::path& directory);
    // The file and its journals.
    static void remove(const std::filesystem::path& path);
    ~QueueFile();
    QueueFile(const QueueFile&) = delete;
    QueueFile& operator=(const QueueFile&) = delete;

    // Takes over the rows of processes that have ended as pending ones, a refused one as a
    // resend. Returns the ids of this process's pending rows, oldest first.
    std::vector<std::int64_t> claimOrphans();
    // In one transaction: adds rows (pending, this process's; their ids in order into ids) and
    // applies changes. False, with nothing written, when the file refuses.
    bool write(const std::vector<Row>& rows, std::vector<std::int64_t>& ids,
               const std::vector<Change>& changes);
    // This process's rows in state with an id above afterId, oldest first.
    std::vector<Row> read(State state, std::int64_t afterId, std::size_t limit);
    // Deletes the oldest of this process's rows in state until at most maxEvents of maxBytes are
    // left; returns how many went.
    std::size_t trim(State state, std::size_t maxEvents, std::size_t maxBytes);
    Counts count(State state);
    // Every row of this process; false when the file refused.
    bool clear();
    // In a forked child: the connection is the parent's.
    void abandon();

private:
    QueueFile(std::unique_ptr<SqliteFile> file, const OwnerLock& owner);

    std::unique_ptr<SqliteFile> file_;
    const OwnerLock& owner_;
};

}  // namespace NorvAnalytic
