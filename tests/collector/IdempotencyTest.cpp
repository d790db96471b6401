#include <NorvAnalytic/NorvAnalytic.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sqlite3.h>

#include <fstream>
#include <latch>
#include <thread>
#include <vector>

#include "CollectorFixture.h"
#include "RawConnection.h"
#include "storage/SqliteFile.h"
#include "support/Eventually.h"
#include "support/ScratchDirectory.h"

namespace NorvAnalytic::Collector {
namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;

// A repeat is answered as its first request was, whatever the steering and the refusals say
// by then, and uses up no refusal; the event is stored once.
TEST_F(CollectorTest, StoresAnEventOncePerKeyAndAnswersARepeatAsTheFirst) {
    const auto key = [](const std::string& value) {
        return httplib::Headers{{"Idempotency-Key", value}};
    };
    const std::string open = "type=2&value=1.000000&device_uuid=KEYS";
    const std::string accepted = post(open, 200, key(R"("5f0c-1a")"));
    ASSERT_TRUE(control({"refuse", "--status", "503", "--count", "1"}));
    ASSERT_TRUE(control({"steer", "--analytics", "off"}));
    EXPECT_EQ(post(open, 200, key(R"("5f0c-1a")")), accepted);
    // The bare token is the same key.
    EXPECT_EQ(post(open, 200, key("5f0c-1a")), accepted);
    EXPECT_EQ(state().at("refusal").at("remaining"), 1);

    const std::string refused = post(open, 503, key(R"("5f0c-2a")"));
    ASSERT_TRUE(control({"refuse", "--status", "500", "--count", "1"}));
    EXPECT_EQ(post(open, 503, key(R"("5f0c-2a")")), refused);
    EXPECT_EQ(state().at("refusal").at("remaining"), 1);
    // Without a key every request is a new event, as ever.
    post(open, 500);
    post(open, 200);

    const std::pair<std::string, int> misuses[] = {
        {R"("5f0c-1a")", 422},  // the key again with another body
        {R"("5f0c)", 400},     {R"("5f0c-1a" x)", 400}, {R"("5f\0c")", 400},
        {"5f0c 1a", 400},      {R"("")", 400},          {std::string(256, 'k'), 400},
    };
    for (const auto& [value, status] : misuses) {
        post("type=7&pageName=Misused", status, key(value));
    }
    post("type=7", 400, {{"Idempotency-Key", "a"}, {"Idempotency-Key", "b"}});

    const std::vector<StoredEvent> events = store_.events();
    ASSERT_EQ(events.size(), 4U);
    EXPECT_EQ(events[0].idempotencyKey, "5f0c-1a");
    EXPECT_EQ(events[0].repeats, 2);
    EXPECT_EQ(events[1].repeats, 1);
    EXPECT_EQ(events[2].idempotencyKey, std::nullopt);
    EXPECT_EQ(state().at("repeats_absorbed"), 3);
    const std::string table = cli({"list", "--db", database_}).second;
    EXPECT_NE(table.find("\n4 events, 3 repeats absorbed"), std::string::npos) << table;
    const std::string raw = cli({"list", "--db", database_, "--raw"}).second;
    EXPECT_NE(raw.find(" bytes key \"5f0c-1a\" repeated 2 times\n" + open + "\n"),
              std::string::npos)
        << raw;
    const std::string jsonl = cli({"export", "--db", database_, "--format", "jsonl"}).second;
    const Json exported = Json::parse(jsonl.substr(0, jsonl.find('\n')));
    EXPECT_EQ(exported.at("idempotency_key"), "5f0c-1a");
    EXPECT_EQ(exported.at("repeats"), 2);
}

// The SDK's own keys, end to end: a refused event is kept and sent again a second later with the
// same key, which the collector absorbs, answering as it did the first time.
TEST_F(CollectorTest, AbsorbsTheSdksResendOfARefusedEvent) {
    setenv("XDG_DATA_HOME", (directory_ / "data").c_str(), 1);
    Bundle::setMainBundle(std::make_shared<Bundle>(
        "com.example.keys",
        Bundle::InfoDictionary{{"CFBundleShortVersionString", "2.3"}, {"CFBundleVersion", "41"}}));
    NorvAnalytics::setCollectionServerHost("127.0.0.1:" + std::to_string(port_));
    NorvAnalytics::setIdempotencyKeys(true);
    NorvAnalytics::initWithKey("app-key");
    NorvAnalytics::setSecureUrl(false);
    ASSERT_TRUE(control({"refuse", "--status", "503", "--count", "1"}));
    NorvAnalytics::sendEventWithPageName("Orders");
    ASSERT_TRUE(NorvAnalytics::flush(10s));
    Testing::eventually([&] { return store_.repeatsAbsorbed() > 0; }, 10s);
    NorvAnalytics::setIdempotencyKeys(false);
    const std::vector<StoredEvent> events = store_.events();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].status, 503);
    EXPECT_TRUE(events[0].idempotencyKey.has_value());
    EXPECT_EQ(events[0].repeats, 1);
    EXPECT_EQ(state().at("refusal").at("remaining"), 0);
}

// The SDK's one-second resend may meet its first request still in the collector: however many
// arrive at once, one is stored, one refusal is used, and all are answered alike.
TEST_F(CollectorTest, StoresAKeyOnceWhenItsRequestsArriveTogether) {
    constexpr int kRounds = 30;
    constexpr int kRequests = 16;
    ASSERT_TRUE(control({"refuse", "--status", "503", "--count", std::to_string(kRounds + 1)}));
    for (int round = 0; round < kRounds; ++round) {
        const std::string body = "type=7&pageName=Round" + std::to_string(round);
        const std::string request =
            kEventHead + "Idempotency-Key: \"same-" + std::to_string(round) +
            "\"\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
            "\r\n\r\n" + body;
        std::vector<std::unique_ptr<RawConnection>> clients;
        for (int index = 0; index < kRequests; ++index) {
            clients.push_back(std::make_unique<RawConnection>(port_));
        }
        std::latch ready(kRequests);
        std::vector<std::string> answers(kRequests);
        std::vector<std::jthread> senders;
        for (int index = 0; index < kRequests; ++index) {
            senders.emplace_back([&, index] {
                ready.arrive_and_wait();
                clients[index]->send(request);
                answers[index] = clients[index]->receiveAll(10s);
            });
        }
        senders.clear();
        EXPECT_EQ(std::count(answers.begin(), answers.end(), answers.front()), kRequests) << round;
        EXPECT_TRUE(answers.front().starts_with("HTTP/1.1 503")) << answers.front();
    }
    const std::vector<StoredEvent> events = store_.events();
    ASSERT_EQ(events.size(), static_cast<std::size_t>(kRounds));
    for (const StoredEvent& event : events) {
        EXPECT_EQ(event.repeats, kRequests - 1);
    }
    EXPECT_EQ(state().at("refusal").at("remaining"), 1);
}

// A file that an earlier collector wrote, before events had keys, gains them.
TEST(CollectorStoreTest, GivesAFileWrittenBeforeKeysAUniqueColumnForThem) {
    const Testing::ScratchDirectory scratch;
    const std::string path = (scratch.path() / "collector.sqlite").string();
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    ASSERT_EQ(
        sqlite3_exec(database,
                     "CREATE TABLE events (id INTEGER PRIMARY KEY AUTOINCREMENT, "
                     "received_at TEXT NOT NULL, status INTEGER NOT NULL, body BLOB NOT NULL);"
                     "CREATE TABLE pairs (event_id INTEGER NOT NULL, position INTEGER NOT "
                     "NULL, key TEXT NOT NULL, value TEXT, PRIMARY KEY (event_id, position));"
                     "INSERT INTO events (received_at, status, body) "
                     "VALUES ('2026-11-01T00:00:00.000Z', 200, 'type=2');",
                     nullptr, nullptr, nullptr),
        SQLITE_OK);
    sqlite3_close(database);
    {
        CollectorStore store(path);
        const auto now = std::chrono::system_clock::now();
        store.save("type=7", now, 200, "{}", "k1");
        EXPECT_THROW(store.save("type=7", now, 200, "{}", "k1"), std::runtime_error);
        store.save("type=7", now, 200, "{}");
        store.countRepeat(2);
        const std::vector<StoredEvent> events = store.events();
        ASSERT_EQ(events.size(), 3U);
        EXPECT_EQ(events[0].idempotencyKey, std::nullopt);
        EXPECT_EQ(store.eventWithKey("k1")->id, 2);
        EXPECT_EQ(store.eventWithKey("k2"), std::nullopt);
    }
    EXPECT_EQ(CollectorStore(path).repeatsAbsorbed(), 1);
}

// Events carry device ids and user names: the file is its owner's alone, and a file at its path
// that is not a collector's is set aside rather than failing every request.
TEST(CollectorStoreTest, KeepsItsFileToItsOwnerAndSetsAsideOneNotItsOwn) {
    const Testing::ScratchDirectory scratch;
    const std::filesystem::path path = scratch.path() / "collector.sqlite";
    std::ofstream(path) << "not a database";
    std::filesystem::permissions(
        path, std::filesystem::perms::others_read | std::filesystem::perms::group_read,
        std::filesystem::perm_options::add);
    {
        CollectorStore store(path.string());
        store.save("type=7", std::chrono::system_clock::now(), 200);
        EXPECT_EQ(store.events().size(), 1U);
    }
    EXPECT_EQ(std::filesystem::status(path).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_EQ(SqliteFile::movedAside(path).size(), 1U);
}

}  // namespace
}  // namespace NorvAnalytic::Collector
