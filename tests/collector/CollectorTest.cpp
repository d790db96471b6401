#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "CollectorCli.h"
#include "CollectorServer.h"
#include "CollectorStore.h"

namespace NorvAnalytic::Collector {
namespace {

using Json = nlohmann::json;

// A collector with its own database file, serving on an ephemeral loopback port.
class CollectorTest : public testing::Test {
protected:
    CollectorTest()
        : directory_(std::filesystem::temp_directory_path() /
                     ("norv-collector-test-" + std::to_string(getpid()) + "-" +
                      testing::UnitTest::GetInstance()->current_test_info()->name())),
          store_((directory_ / "collector.sqlite").string()), server_(store_),
          port_(server_.start("127.0.0.1", 0)), client_("127.0.0.1", port_) {}

    ~CollectorTest() override {
        server_.stop();
        std::filesystem::remove_all(directory_);
    }

    httplib::Result postEvent(const std::string& body) {
        return client_.Post("/api/v3/saveEvent", body, "application/x-www-form-urlencoded");
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

    // Runs one norv-collector command line and returns its exit status and output.
    std::pair<int, std::string> cli(const std::vector<std::string>& arguments) {
        std::ostringstream out;
        std::ostringstream err;
        const int status = CollectorCli::run(arguments, out, err);
        return {status, out.str() + err.str()};
    }

    std::filesystem::path directory_;
    CollectorStore store_;
    CollectorServer server_;
    int port_;
    httplib::Client client_;
};

TEST(CollectorStoreTest, SplitsPairsWithoutUnescapingAnything) {
    const std::vector<FormPair> pairs =
        CollectorStore::parsePairs("key=a%20b&parameters={\"a\":1}&x=1=2&flag&=lone&empty=");
    ASSERT_EQ(pairs.size(), 6U);
    EXPECT_EQ(pairs[0].key, "key");
    EXPECT_EQ(pairs[0].value, "a%20b");
    EXPECT_EQ(pairs[1].value, "{\"a\":1}");
    EXPECT_EQ(pairs[2].key, "x");
    EXPECT_EQ(pairs[2].value, "1=2");
    EXPECT_EQ(pairs[3].key, "flag");
    EXPECT_FALSE(pairs[3].value.has_value());
    EXPECT_EQ(pairs[4].key, "");
    EXPECT_EQ(pairs[4].value, "lone");
    EXPECT_EQ(pairs[5].value, "");
    EXPECT_TRUE(CollectorStore::parsePairs("").empty());
}

TEST_F(CollectorTest, StoresRawBodyAndPairsOfEveryEvent) {
    const std::string body = "key=K&value=1.000000&type=7&pageName=Home & Garden&"
                             "device_uuid=ABC-123&is_test_device=1";
    const auto result = postEvent(body);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 200);
    EXPECT_EQ(Json::parse(result->body),
              Json::parse(R"({"message":"Event saved","code":200,"payload":null})"));

    // A second store on the same file sees what the server wrote.
    const std::vector<StoredEvent> events =
        CollectorStore((directory_ / "collector.sqlite").string()).events();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].body, body);
    EXPECT_EQ(events[0].status, 200);
    EXPECT_EQ(events[0].value("type"), "7");
    // The unescaped "&" splits the page name: the server sees what the SDK wrote.
    EXPECT_EQ(events[0].value("pageName"), "Home ");
    EXPECT_EQ(events[0].pairs[4].key, " Garden");
    EXPECT_EQ(events[0].value("device_uuid"), "ABC-123");
    EXPECT_EQ(events[0].receivedAt.size(), 24U);

    // Form bodies far over httplib's own 8 KiB form limit are taken whole.
    const std::string large = "key=K&endpoint=" + std::string(200 * 1024, 'e') + "&type=1";
    ASSERT_TRUE(postEvent(large));
    EXPECT_EQ(CollectorStore((directory_ / "collector.sqlite").string()).events().at(1).body,
              large);
}

TEST_F(CollectorTest, RefusesAPortAnotherCollectorHolds) {
    CollectorServer second(store_);
    EXPECT_THROW(second.start("127.0.0.1", port_), std::runtime_error);
}

TEST_F(CollectorTest, SteersAppOpenAnswersOnly) {
    server_.setSteering(Steering{false, VersionOffer{"9.9.9", "https://example.test/m.plist"},
                                 std::nullopt, false});
    const auto appOpen = postEvent("value=1.000000&type=2&batteryLevel=50.000000");
    ASSERT_TRUE(appOpen);
    EXPECT_EQ(Json::parse(appOpen->body)["payload"],
              Json::parse(R"({"analytics_enabled":false,
                              "force_version":{"no":"9.9.9",
                                               "download_url":"https://example.test/m.plist"},
                              "offer_version":null})"));
    const auto pageOpen = postEvent("value=1.000000&type=7");
    ASSERT_TRUE(pageOpen);
    EXPECT_TRUE(Json::parse(pageOpen->body)["payload"].is_null());
    const auto typeless = postEvent("value=1.000000&pageName=type=2");
    ASSERT_TRUE(typeless);
    EXPECT_TRUE(Json::parse(typeless->body)["payload"].is_null());

    // At run time, through the command line and the control endpoint.
    auto [status, output] = cli({"steer", "--url", url(), "--analytics", "on", "--force", "none",
                                 "--offer", "2.0", "--download-url", "https://d.test/x"});
    EXPECT_EQ(status, 0) << output;
    const Json payload = Json::parse(postEvent("type=2")->body)["payload"];
    EXPECT_EQ(payload["analytics_enabled"], true);
    EXPECT_TRUE(payload["force_version"].is_null());
    EXPECT_EQ(payload["offer_version"]["no"], "2.0");
    EXPECT_EQ(payload["offer_version"]["download_url"], "https://d.test/x");

    std::tie(status, output) = cli({"steer", "--url", url(), "--null-payload"});
    EXPECT_EQ(status, 0) << output;
    EXPECT_TRUE(Json::parse(postEvent("type=2")->body).at("payload").is_null());
    // Without the flag the payload comes back, with the versions set before.
    std::tie(status, output) = cli({"steer", "--url", url(), "--analytics", "off"});
    EXPECT_EQ(status, 0) << output;
    const Json again = Json::parse(postEvent("type=2")->body)["payload"];
    EXPECT_EQ(again["analytics_enabled"], false);
    EXPECT_EQ(again["offer_version"]["no"], "2.0");

    const auto invalid = client_.Post("/control/steer", "{\"analytics_enabled\":", "text/plain");
    ASSERT_TRUE(invalid);
    EXPECT_EQ(invalid->status, 400);
}

TEST_F(CollectorTest, RefusesExactlyTheNextEvents) {
    auto [status, output] = cli({"refuse", "--url", url(), "--status", "503", "--count", "2"});
    EXPECT_EQ(status, 0) << output;
    for (int index = 0; index < 2; ++index) {
        const auto refused = postEvent("type=2&value=" + std::to_string(index));
        ASSERT_TRUE(refused);
        EXPECT_EQ(refused->status, 503);
        const Json answer = Json::parse(refused->body);
        EXPECT_EQ(answer["code"], 503);
        EXPECT_TRUE(answer["payload"].is_null());
    }
    const auto accepted = postEvent("type=2&value=2");
    ASSERT_TRUE(accepted);
    EXPECT_EQ(accepted->status, 200);
    EXPECT_EQ(Json::parse(accepted->body)["payload"]["analytics_enabled"], true);

    server_.refuse(500, 1, "not json");
    const auto plain = postEvent("type=1");
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->status, 500);
    EXPECT_EQ(plain->body, "not json");

    const std::vector<StoredEvent> events = store_.events();
    ASSERT_EQ(events.size(), 4U);
    EXPECT_EQ(events[0].status, 503);
    EXPECT_EQ(events[1].status, 503);
    EXPECT_EQ(events[2].status, 200);
    EXPECT_EQ(events[3].status, 500);
}

TEST_F(CollectorTest, ListShowsATableAndRawBodies) {
    const std::string login = "key=K&value=0.000000&type=5&parameters=(null)&response=(null)&"
                              "device_uuid=0123456789ABCDEF&username=alice";
    ASSERT_TRUE(postEvent(login));
    ASSERT_TRUE(postEvent("value=1.000000&type=7&pageName=Settings"));
    server_.stop();

    const std::string database = (directory_ / "collector.sqlite").string();
    auto [status, table] = cli({"list", "--db", database});
    EXPECT_EQ(status, 0);
    std::istringstream lines(table);
    std::vector<std::string> rows;
    for (std::string line; std::getline(lines, line);) {
        rows.push_back(line);
    }
    ASSERT_EQ(rows.size(), 4U) << table;
    EXPECT_TRUE(rows[0].starts_with("ID")) << rows[0];
    EXPECT_TRUE(rows[1].starts_with("1 ")) << rows[1];
    EXPECT_NE(rows[1].find(" 200 "), std::string::npos) << rows[1];
    EXPECT_NE(rows[1].find(" 5 "), std::string::npos) << rows[1];
    EXPECT_NE(rows[1].find("0123456~"), std::string::npos) << rows[1];
    EXPECT_NE(rows[1].find("username=alice"), std::string::npos) << rows[1];
    EXPECT_TRUE(rows[1].ends_with(std::to_string(login.size()))) << rows[1];
    EXPECT_NE(rows[2].find("pageName=Settings"), std::string::npos) << rows[2];
    EXPECT_EQ(rows[3], "2 events");

    auto [rawStatus, raw] = cli({"list", "--db", database, "--raw"});
    EXPECT_EQ(rawStatus, 0);
    EXPECT_NE(raw.find("\n" + login + "\n"), std::string::npos) << raw;
    EXPECT_NE(raw.find("\nvalue=1.000000&type=7&pageName=Settings\n"), std::string::npos);

    EXPECT_EQ(cli({"list", "--bogus"}).first, 2);
    EXPECT_EQ(cli({"steer", "--url", url(), "--download-url", "x"}).first, 2);
}

}  // namespace
}  // namespace NorvAnalytic::Collector
