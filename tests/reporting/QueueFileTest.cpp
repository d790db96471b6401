#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "delivery/OwnerLock.h"
#include "delivery/QueueFile.h"
#include "events/EventTable.h"
#include "support/ScratchDirectory.h"

namespace NorvAnalytic {
namespace {

using State = QueueFile::State;

std::string readFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class QueueFileTest : public testing::Test {
protected:
    // Rows as other processes left them: written straight into the file.
    void insertAs(const std::string& owner, State state, const std::string& body) {
        sqlite3* database = nullptr;
        ASSERT_EQ(sqlite3_open((directory / "queue.sqlite").c_str(), &database), SQLITE_OK);
        const std::string sql = "INSERT INTO events(owner, state, saved, url, body, texts) VALUES('" +
                                owner + "', " + std::to_string(static_cast<int>(state)) +
                                ", 0, 'http://u', '" + body + "', '')";
        EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(database);
    }

    const Testing::ScratchDirectory scratch;
    const std::filesystem::path& directory = scratch.path();
};

TEST(EventTableBytes, TextsSurviveTheirBytesAndCutBytesAreRefused) {
    const EventTexts texts = {{&Event::eventTypeId, "7"},
                              {&Event::pageName, std::string("a\0b&c=d", 7)},
                              {&Event::deviceName, std::string(300, 'x')}};
    const std::string bytes = EventTable::encode(texts);
    EXPECT_EQ(EventTable::decode(bytes), texts);
    for (const std::size_t cut : {std::size_t{1}, std::size_t{5}, bytes.size() - 1}) {
        EXPECT_EQ(EventTable::decode(std::string_view(bytes).substr(0, cut)), std::nullopt) << cut;
    }
    EXPECT_EQ(EventTable::decode(std::string("\x04nope\0\0\0\0", 9)), std::nullopt);
}

// Liveness is a lock another process holds, whatever its pid: a second OwnerLock here is such a
// process. A token nobody holds, and a token of the older pid:start-time form, belong to no one.
TEST_F(QueueFileTest, RowsOfEndedProcessesAreClaimedInOrderAndLiveOnesAreLeft) {
    const std::filesystem::path path = directory / "queue.sqlite";
    const auto us = OwnerLock::acquire(path);
    const auto other = OwnerLock::acquire(path);
    ASSERT_NE(us, nullptr);
    ASSERT_NE(other, nullptr);
    ASSERT_NE(QueueFile::open(path, *us), nullptr);
    insertAs("00000000deadbeef", State::Pending, "ended-pending");
    insertAs(other->token(), State::Pending, "live");
    insertAs("1:0", State::Refused, "ended-refused");
    insertAs("00000000deadbeef", State::Unanswered, "ended-unanswered");

    auto first = QueueFile::open(path, *us);
    ASSERT_EQ(first->claimOrphans().size(), 3U);
    const auto rows = first->read(State::Pending, 0, 10);
    ASSERT_EQ(rows.size(), 3U);
    EXPECT_EQ(rows[0].body, "ended-pending");
    EXPECT_FALSE(rows[0].isSavedEvent);
    // A refused event was sent once already: the next try is its resend.
    EXPECT_EQ(rows[1].body, "ended-refused");
    EXPECT_TRUE(rows[1].isSavedEvent);
    EXPECT_EQ(rows[2].body, "ended-unanswered");
    // The live process's row stays its own.
    const auto live = QueueFile::open(path, *other)->read(State::Pending, 0, 10);
    ASSERT_EQ(live.size(), 1U);
    EXPECT_EQ(live[0].body, "live");
}

TEST_F(QueueFileTest, ADamagedFileIsMovedAsideAndAFreshOneTakesItsPlace) {
    const std::filesystem::path path = directory / "queue-host.sqlite";
    std::ofstream(path, std::ios::binary) << std::string(8192, '\x5a');
    const auto owner = OwnerLock::acquire(path);
    auto file = QueueFile::open(path, *owner);
    ASSERT_NE(file, nullptr);
    std::vector<std::int64_t> ids;
    ASSERT_TRUE(file->write({{0, "http://u", "body", "", false, ""}}, ids, {}));
    EXPECT_EQ(file->read(State::Pending, 0, 10).size(), 1U);
    std::size_t movedAside = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().filename().string().starts_with("queue-host.sqlite.corrupt-")) {
            ++movedAside;
            EXPECT_EQ(readFile(entry.path()), std::string(8192, '\x5a'));
        }
    }
    EXPECT_EQ(movedAside, 1U);
    EXPECT_EQ(std::filesystem::status(path).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

}  // namespace
}  // namespace NorvAnalytic
