#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <thread>

#include "CollectorFixture.h"
#include "EventSummary.h"
#include "LiveStreams.h"
#include "support/Eventually.h"
#include "support/ScratchDirectory.h"

namespace NorvAnalytic::Collector {
namespace {

using Json = nlohmann::json;

TEST_F(CollectorTest, StoresAndListsEveryBodyAsItArrived) {
    // Nothing is unescaped, so an unescaped "&" splits a value, as the SDK would have it.
    const std::string login =
        "key=a%20b&type=5&x=1=2&flag&=lone&empty=&device_uuid=0123456789&username=al & bo";
    EXPECT_EQ(post(login), R"({"message":"Event saved","code":200,"payload":null})");
    // An event with no pairs between two with pairs; answered with a refusal.
    ASSERT_TRUE(control({"refuse", "--status", "503"}));
    post("", 503);
    // Far over httplib's own 8 KiB limit for form bodies, under the collector's 64 KiB.
    const std::string large = "value=12345678.000000&endpoint=" + std::string(60 * 1024, 'e');
    post(large);

    const std::vector<StoredEvent> events = store_.events();
    std::string pairs;
    for (const FormPair& pair : events.at(0).pairs) {
        pairs += pair.key + (pair.value ? ":" + *pair.value : "") + "|";
    }
    EXPECT_EQ(pairs,
              "key:a%20b|type:5|x:1=2|flag|:lone|empty:|device_uuid:0123456789|username:al | bo|");
    EXPECT_TRUE(events.at(1).pairs.empty());

    // Each event's own pairs fill its row, cut to the column with a "~".
    const auto [status, table] = cli({"list", "--db", database_});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(
        std::regex_replace(table, std::regex(R"(20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)"),
                           "YYYY-MM-DDThh:mm:ss.sssZ"),
        R"(ID    RECEIVED                 STATUS TYPE                  VALUE       DEVICE    SUMMARY                           BYTES
1     YYYY-MM-DDThh:mm:ss.sssZ 200    5 User Login          -           0123456~  al                                80
2     YYYY-MM-DDThh:mm:ss.sssZ 503    -                     -           -                                           0
3     YYYY-MM-DDThh:mm:ss.sssZ 200    -                     12345678.0~ -         endpoint: eeeeeeeeeeeeeeeeeeeeee~ 61471
3 events
)");
    const std::string raw = cli({"list", "--db", database_, "--raw"}).second;
    EXPECT_NE(raw.find(" status 200 80 bytes\n" + login + "\n#2 "), std::string::npos)
        << raw.substr(0, 200);
    EXPECT_EQ(cli({"list", "--bogus"}).first, 2);

    // Times keep the leading zeros of their milliseconds, so they sort as they read.
    store_.save("", std::chrono::system_clock::time_point(std::chrono::milliseconds(5)), 200);
    EXPECT_EQ(store_.events().back().receivedAt, "1970-01-01T00:00:00.005Z");
}

TEST_F(CollectorTest, SteersAndRefusesAppOpenAnswersAndHoldsItsPort) {
    ASSERT_TRUE(control({"steer", "--analytics", "off", "--force", "9.9", "--download-url", "d"}));
    EXPECT_EQ(
        payloadOf("value=1.000000&type=2").dump(),
        R"({"analytics_enabled":false,"force_version":{"download_url":"d","no":"9.9"},"offer_version":null})");
    EXPECT_EQ(payloadOf("pageName=type=2"), nullptr);

    // A steer changes only what it names; without --null-payload the payload comes back.
    ASSERT_TRUE(control({"steer", "--null-payload"}));
    EXPECT_EQ(payloadOf("type=2"), nullptr);
    ASSERT_TRUE(control({"steer", "--force", "none", "--offer", "2.0"}));
    EXPECT_EQ(
        payloadOf("type=2").dump(),
        R"({"analytics_enabled":false,"force_version":null,"offer_version":{"download_url":"","no":"2.0"}})");

    EXPECT_FALSE(control({"steer", "--download-url", "d"}));

    // A refusal holds for exactly the next events it counts.
    ASSERT_TRUE(control({"refuse", "--status", "503", "--count", "2"}));
    EXPECT_EQ(post("type=2", 503), R"({"message":"Event refused","code":503,"payload":null})");
    EXPECT_EQ(post("type=2", 503), R"({"message":"Event refused","code":503,"payload":null})");
    EXPECT_EQ(payloadOf("type=2").at("analytics_enabled"), false);
    ASSERT_TRUE(control({"refuse", "--body", "not json"}));
    EXPECT_EQ(post("type=1", 500), "not json");

    // Without options, steer shows the refusals still pending and the answer they give.
    ASSERT_TRUE(control({"refuse", "--status", "503", "--count", "2"}));
    const std::string state = cli({"steer", "--url", url()}).second;
    EXPECT_NE(state.find("\"remaining\": 2"), std::string::npos) << state;
    EXPECT_NE(state.find("\"next_app_open\": {\n    \"status\": 503"), std::string::npos) << state;

    CollectorServer second(store_);
    EXPECT_THROW(second.start("127.0.0.1", port_), std::runtime_error);
}

TEST_F(CollectorTest, ListsWhatItsFiltersMatchAndHelpsOnStandardOutput) {
    post("type=2&device_uuid=AAAA-1");
    post("type=7&device_uuid=BBBB-2");
    const auto now = std::chrono::system_clock::now();
    store_.save("type=7&device_uuid=AAAA-3", now - std::chrono::hours(48), 200);
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--type", "app OPEN"}, "1 "},
        {{"--type", "7"}, "2 3 "},
        {{"--device", "AAAA"}, "1 3 "},
        {{"--type", "Page Open", "--device", "AAAA-3"}, "3 "},
        {{"--since", CollectorStore::isoTime(now - std::chrono::hours(24)).substr(0, 13)}, "1 2 "},
        {{"--since", "1d"}, "1 2 "},
        {{"--since", "3d"}, "1 2 3 "},
    };
    for (const auto& [filter, expected] : cases) {
        std::vector<std::string> command{"list", "--db", database_};
        command.insert(command.end(), filter.begin(), filter.end());
        const std::string table = cli(command).second;
        std::string ids;
        const std::regex row(R"((^|\n)(\d+) +\d{4}-)");
        for (auto match = std::sregex_iterator(table.begin(), table.end(), row);
             match != std::sregex_iterator(); ++match) {
            ids += (*match)[2].str() + " ";
        }
        EXPECT_EQ(ids, expected) << filter.at(1);
    }
    EXPECT_EQ(cli({"list", "--db", database_, "--type", "App Opened"}).first, 2);
    EXPECT_EQ(cli({"list", "--db", database_, "--since", "yesterday"}).first, 2);

    for (const std::string command : {"serve", "steer", "refuse", "list"}) {
        std::ostringstream out, err;
        EXPECT_EQ(CollectorCli::run({command, "--help"}, out, err), 0) << command;
        EXPECT_EQ(err.str(), "") << command;
        EXPECT_NE(out.str().find("Usage: norv-collector " + command), std::string::npos);
    }
    EXPECT_NE(cli({"list", "--help"}).second.find(CollectorStore::defaultPath()),
              std::string::npos);
}

TEST_F(CollectorTest, StreamsTheNewEventsItsFiltersMatch) {
    post("type=2&device_uuid=A");
    std::thread sender([this] { post("type=2&device_uuid=C"); });
    std::string received;
    httplib::Client stream("127.0.0.1", port_);
    stream.Get("/api/stream?type=2", {{"Last-Event-ID", "1"}},
               [&received](const char* data, std::size_t length) {
                   received.append(data, length);
                   return received.find(R"("device":"C")") == std::string::npos;
               });
    sender.join();
    EXPECT_EQ(received.find(R"("device":"A")"), std::string::npos) << received;
    EXPECT_NE(received.find("id: 2\nevent: events\n"), std::string::npos) << received;
}

// Live pages filter events in memory, the list and the counts in SQL: they must agree.
TEST_F(CollectorTest, FiltersAgreeOnLivePagesInTheListCountsAndRates) {
    for (const char* body :
         {"type=2&device_uuid=AAAA-1&username=Ann", "type=7&device_uuid=AAAB-2&pageName=Orders",
          "type=7&device_uuid=BAAA-3&pageName=ann%27s", "type=70&device_uuid=aaaa-4", "error=x",
          "type=2&device_uuid=AAAA-5&username=ANNE%20B"}) {
        post(body);
    }
    EventFilter type7;
    type7.typeId = "7";
    EventFilter prefix;
    prefix.device = "AAA";
    EventFilter text;
    text.text = "aNn";
    EventFilter both = text;
    both.typeId = "2";
    both.device = "AAAA-";
    for (const EventFilter& filter : {EventFilter{}, type7, prefix, text, both}) {
        std::vector<std::int64_t> inSql;
        for (const StoredEvent& event : store_.events(filter)) {
            inSql.push_back(event.id);
        }
        std::vector<std::int64_t> inMemory;
        for (const StoredEvent& event : store_.events()) {
            if (filter.matches(event)) {
                inMemory.push_back(event.id);
            }
        }
        EXPECT_EQ(inMemory, inSql)
            << filter.typeId.value_or("") << filter.device.value_or("") << filter.text.value_or("");
        EXPECT_EQ(store_.counts(filter).total, static_cast<std::int64_t>(inSql.size()));
        std::int64_t rated = 0;
        for (const RateBucket& bucket : store_.rates(filter, false)) {
            rated += bucket.count;
        }
        EXPECT_EQ(rated, static_cast<std::int64_t>(inSql.size()));
    }
    EXPECT_EQ(store_.counts(both).byType,
              (std::vector<std::pair<std::string, std::int64_t>>{{"2", 2}}));
    EXPECT_EQ(store_.counts(both).lastId, 6);
}

// The chart's bars: per second or per minute, by type, refused answers apart.
TEST_F(CollectorTest, RatesCountEventsPerSecondOrMinuteByTypeAndRefusal) {
    const auto minute = std::chrono::sys_days{std::chrono::November / 25 / 2026} +
                        std::chrono::hours(7) + std::chrono::minutes(30);
    store_.save("type=7", minute + std::chrono::milliseconds(100), 200);
    store_.save("type=7", minute + std::chrono::milliseconds(900), 503);
    store_.save("type=7", minute + std::chrono::milliseconds(950), 200);
    store_.save("type=2", minute + std::chrono::milliseconds(1200), 200);
    store_.save("", minute + std::chrono::seconds(59), 200);
    store_.save("type=7", minute + std::chrono::seconds(61), 200);
    store_.save("type=7", minute - std::chrono::seconds(1), 200);
    EventFilter filter;
    filter.since = "2026-11-25T07:30";
    const auto text = [&](bool perMinute) {
        std::string buckets;
        for (const RateBucket& bucket : store_.rates(filter, perMinute)) {
            buckets += bucket.time + " " + bucket.typeId + (bucket.refused ? " refused " : " ") +
                       std::to_string(bucket.count) + "\n";
        }
        return buckets;
    };
    EXPECT_EQ(text(false),
              "2026-11-25T07:30:00 7 2\n"
              "2026-11-25T07:30:00 7 refused 1\n"
              "2026-11-25T07:30:01 2 1\n"
              "2026-11-25T07:30:59  1\n"
              "2026-11-25T07:31:01 7 1\n");
    EXPECT_EQ(text(true),
              "2026-11-25T07:30  1\n"
              "2026-11-25T07:30 2 1\n"
              "2026-11-25T07:30 7 2\n"
              "2026-11-25T07:30 7 refused 1\n"
              "2026-11-25T07:31 7 1\n");
}

TEST(EventSummaryTest, TellsEventsOfATypeApart) {
    const std::string offered =
        R"({"message":"Event saved","code":200,"payload":{"analytics_enabled":false,)"
        R"("force_version":null,"offer_version":{"no":"9.9.9","download_url":"d"}}})";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"type=7&value=0.000000&pageName=Orders&username=ann", "", "Orders"},
        {"type=2&value=1.000000&username=ann&device_name=Till", offered,
         "open · ann · Till · collection off · offered 9.9.9"},
        {"type=2&value=0.000000", R"({"payload":null})", "close"},
        {"type=15&parameters=user%3Dbob&error=wrong password", "", "wrong password · user%3Dbob"},
        {"type=1&endpoint=/api/orders&value=0.250000", "", "/api/orders · 0.250000"},
        {"type=99&pageName=x", "", ""},
        {"value=0.000000&warehouse=North&username=ann", "", "username: ann"},
        {"", "not json", ""},
    };
    for (const auto& [body, answer, expected] : cases) {
        StoredEvent event;
        event.pairs = CollectorStore::parsePairs(body);
        event.answer = answer;
        EXPECT_EQ(EventSummary::of(event), expected) << body;
    }
}

// The command line and the page's download link write the same file. A page name is whatever a
// host sends: a spreadsheet that opens the CSV must show it as text rather than run or split it.
// JSON Lines keeps it exact.
TEST_F(CollectorTest, ExportsWhatItsFiltersMatchAsJsonLinesAndCsvCellsAsText) {
    const std::pair<std::string, std::string> cases[] = {
        {"Orders, \"new\"\r\nline", "\"Orders, \"\"new\"\"\r\nline\""},
        {"=1+1", "'=1+1"},
        {"+1+1", "'+1+1"},
        {"-2", "'-2"},
        {"@SUM(1+1)*cmd|' /C calc'!A0", "'@SUM(1+1)*cmd|' /C calc'!A0"},
        {"\t=1", "'\t=1"},
        {"\r=1", "\"'\r=1\""},
        {"1=1", "1=1"},
    };
    for (const auto& [pageName, cell] : cases) {
        post("type=7&device_uuid=FORMULA&pageName=" + pageName);
    }
    post("type=2&device_uuid=D2");
    const auto [status, csv] = cli({"export", "--db", database_, "--format", "csv", "--type", "7"});
    EXPECT_EQ(status, 0);
    ASSERT_TRUE(
        csv.starts_with("id,received_at,status,type,type_name,device,summary,body,answer,"
                        "idempotency_key,repeats\r\n1,"))
        << csv;
    EXPECT_EQ(csv.find(",D2,"), std::string::npos) << csv;
    const std::string jsonl =
        cli({"export", "--db", database_, "--format", "jsonl", "--device", "FORMULA"}).second;
    EXPECT_EQ(std::count(jsonl.begin(), jsonl.end(), '\n'), std::ssize(cases)) << jsonl;
    std::istringstream lines(jsonl);
    for (const auto& [pageName, cell] : cases) {
        EXPECT_NE(csv.find(",200,7,Page Open,FORMULA," + cell + ","), std::string::npos)
            << cell << "\n"
            << csv;
        std::string line;
        std::getline(lines, line);
        EXPECT_EQ(Json::parse(line).at("summary"), pageName);
        EXPECT_EQ(Json::parse(line).at("body"), "type=7&device_uuid=FORMULA&pageName=" + pageName);
    }
    EXPECT_NE(csv.find("\r\n2,"), std::string::npos) << csv;

    EXPECT_EQ(client_.Get("/api/export?format=csv&type=7")->body, csv);
    EXPECT_EQ(client_.Get("/api/export?format=jsonl&device=FORMULA")->body, jsonl);
    EXPECT_EQ(client_.Get("/api/export?format=xml")->status, 400);
    EXPECT_EQ(cli({"export", "--db", database_, "--format", "xml"}).first, 2);
    EXPECT_NE(cli({"export", "--help"}).second.find("gets a leading '"), std::string::npos);
}

// An event's values are any bytes a host sent: printed raw, ESC and BEL would retitle or clear
// the reader's terminal.
TEST_F(CollectorTest, ListsControlCharactersAsVisibleEscapes) {
    post("type=7&pageName=\x1b]0;owned\x07\x1b[2J\\\xc2\x9b\xff&device_uuid=\x1b");
    for (const bool raw : {false, true}) {
        const std::string printed =
            cli(raw ? std::vector<std::string>{"list", "--db", database_, "--raw"}
                    : std::vector<std::string>{"list", "--db", database_})
                .second;
        EXPECT_EQ(printed.find_first_of("\x1b\x07\x9b\xff"), std::string::npos) << printed;
        EXPECT_NE(
            printed.find(raw ? R"(\e]0;owned\x07\e[2J\\\u009b\xff)" : R"(\e]0;owned\x07\e[2)"),
            std::string::npos)
            << printed;
    }
}

// Each live page holds a server thread; the SDK's events must still be answered, and every
// page must get them, with more pages open than the server keeps threads for requests.
TEST_F(CollectorTest, ManyLivePagesGetEveryEventWhileEventsAreAnswered) {
    constexpr int kPages =
        static_cast<int>(CollectorServer::kPageThreads + CollectorServer::kSdkThreads) + 8;
    std::atomic<int> reached{0};
    // Pages give up then, so that a server that starves them fails the test, not hangs it.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::vector<std::thread> pages;
    for (int index = 0; index < kPages; ++index) {
        pages.emplace_back([this, &reached, giveUp] {
            std::string received;
            httplib::Client stream("127.0.0.1", port_);
            stream.set_read_timeout(std::chrono::seconds(10));
            stream.Get("/api/stream", [&](const char* data, std::size_t length) {
                received.append(data, length);
                const bool seen = received.find(R"("device":"late")") != std::string::npos;
                reached += seen ? 1 : 0;
                return !seen && std::chrono::steady_clock::now() < giveUp;
            });
        });
    }
    const auto livePages = [this] {
        const auto state = client_.Get("/control/state");
        return state ? Json::parse(state->body).at("live_pages").get<int>() : -1;
    };
    Testing::eventually([&] { return livePages() >= kPages; }, std::chrono::seconds(20));
    httplib::Client sdk("127.0.0.1", port_);
    sdk.set_read_timeout(std::chrono::seconds(5));
    const auto answer = sdk.Post("/api/v3/saveEvent", "type=7&device_uuid=late", "text/plain");
    EXPECT_TRUE(answer && answer->status == 200);
    for (std::thread& page : pages) {
        page.join();
    }
    EXPECT_EQ(reached, kPages);
}

// A page reads what came before it opened from the store and the rest from its queue: each
// event exactly once, in order. A page that stops reading is cut off, not left to grow.
TEST(LiveStreamsTest, GivesEachEventOnceAndCutsOffAPageThatFallsBehind) {
    const Testing::ScratchDirectory scratch;
    {
        CollectorStore store((scratch.path() / "collector.sqlite").string());
        const auto now = std::chrono::system_clock::now();
        for (const char* body : {"a1", "a2", "a3"}) {
            store.save(body, now, 200);
        }
        LiveStreams streams(
            store, [](const StoredEvent& event) { return event.body; },
            [] { return std::string("{}"); });
        streams.start();
        EventFilter after1;
        after1.afterId = 1;
        const auto page = streams.open(after1);
        for (const char* body : {"a4", "a5"}) {
            store.save(body, now, 200);
            streams.publish();
        }
        std::string seen;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (seen.find("a5") == std::string::npos &&
               std::chrono::steady_clock::now() < deadline) {
            const std::string text =
                streams.next(*page, std::chrono::milliseconds(100)).value_or("");
            const std::regex body("a\\d");
            for (auto match = std::sregex_iterator(text.begin(), text.end(), body);
                 match != std::sregex_iterator(); ++match) {
                seen += match->str() + " ";
            }
        }
        EXPECT_EQ(seen, "a2 a3 a4 a5 ");
        streams.leave(page);

        const auto idle = streams.open({});
        const std::string large(LiveStreams::kMaxQueuedBytes / 3, 'x');
        for (int index = 0; index < 4; ++index) {
            store.save(large, now, 200);
            streams.publish();
        }
        Testing::eventually([&] { return streams.pagesCut() > 0; });
        EXPECT_EQ(streams.pagesCut(), 1U);
        EXPECT_EQ(streams.next(*idle, std::chrono::milliseconds(0)), std::nullopt);
        streams.close();
    }
}

// A page the developer visits on another site must not steer the collector, read its events or
// plant events, not even under a name of its own that it rebinds to 127.0.0.1.
TEST_F(CollectorTest, RefusesRequestsFromOtherOriginsAndNames) {
    const std::string own = "127.0.0.1:" + std::to_string(port_);
    const std::string steer = R"({"analytics_enabled":false})";
    const std::tuple<httplib::Headers, const char*, int> cases[] = {
        {{{"Origin", "http://evil.example"}}, "application/json", 403},
        {{{"Sec-Fetch-Site", "cross-site"}}, "application/json", 403},
        {{{"Host", "rebound.example:" + std::to_string(port_)}}, "application/json", 403},
        {{}, "text/plain", 415},
        {{{"Origin", "http://" + own}, {"Sec-Fetch-Site", "same-origin"}}, "application/json", 200},
    };
    for (const auto& [headers, contentType, status] : cases) {
        EXPECT_EQ(payloadOf("type=2").at("analytics_enabled"), true);
        const auto answer = client_.Post("/control/steer", headers, steer, contentType);
        EXPECT_EQ(answer->status, status) << contentType;
    }
    EXPECT_EQ(payloadOf("type=2").at("analytics_enabled"), false);
    EXPECT_EQ(client_.Get("/api/events", {{"Sec-Fetch-Site", "cross-site"}})->status, 403);

    const std::size_t stored = store_.events().size();
    const std::string port = ":" + std::to_string(port_);
    const std::pair<std::string, int> hosts[] = {
        {"rebound.example" + port, 403}, {"localhost" + port, 200}, {"127.0.0.1" + port, 200}};
    for (const auto& [host, status] : hosts) {
        post("type=7&pageName=planted", status, {{"Host", host}});
    }
    EXPECT_EQ(client_.Get("/", {{"Host", "rebound.example" + port}})->status, 403);
    EXPECT_EQ(store_.events().size(), stored + 2);
}

}  // namespace
}  // namespace NorvAnalytic::Collector
