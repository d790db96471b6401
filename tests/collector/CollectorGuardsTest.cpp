#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "BoundedServer.h"
#include "CollectorFixture.h"
#include "RawConnection.h"
#include "support/Eventually.h"
#include "support/ScratchDirectory.h"

namespace NorvAnalytic::Collector {
namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;

std::string statusLine(const std::string& answer) { return answer.substr(0, answer.find('\r')); }

TEST_F(CollectorTest, AnswersControlRequestsOutOfRangeWith400AndTheReason) {
    ASSERT_TRUE(control({"refuse", "--status", "503", "--count", "1000000"}));
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"/control/refuse", R"({"count": -1})", "count is from 0 to 1000000, not -1"},
        {"/control/refuse", R"({"count": -2147483648})", "not -2147483648"},
        {"/control/refuse", R"({"count": 1000001})", "not 1000001"},
        {"/control/refuse", R"({"count": 1e3})", "count is a whole number"},
        {"/control/refuse", R"({"status": 0})", "status is from 100 to 599, not 0"},
        {"/control/refuse", R"({"status": 600})", "not 600"},
        {"/control/refuse", R"({"status": 18446744073709551615})", "status is from 100 to 599"},
        {"/control/refuse", "{\"body\": \"\xff\"}", "the body is not UTF-8"},
        {"/control/refuse", R"({"body": 5})", "body is text or null"},
        {"/control/steer", R"({"force_version": {"no": 5}})", "force_version is null or"},
        {"/control/steer", R"({"analytics": false})", "unknown key \"analytics\""},
        {"/control/steer", R"({"analytics_enabled": "no"})", "analytics_enabled is true or false"},
        {"/control/steer", "[1]", "not a JSON object"},
        {"/control/steer", R"({"analytics_enabled":)", "the body is not JSON"},
    };
    for (const auto& [path, body, reason] : cases) {
        const auto answer = client_.Post(path, body, "application/json");
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->status, 400) << body;
        EXPECT_NE(Json::parse(answer->body).at("error").get<std::string>().find(reason),
                  std::string::npos)
            << answer->body;
    }
    // Nothing that was refused changed what the collector does.
    EXPECT_EQ(state().at("refusal").at("remaining"), 1000000);
    EXPECT_EQ(state().at("steering").at("analytics_enabled"), true);

    const auto [status, printed] = cli({"refuse", "--url", url(), "--count", "-1"});
    EXPECT_EQ(status, 1);
    EXPECT_NE(printed.find("answered 400: {\"error\":\"count is from 0 to 1000000, not -1\"}"),
              std::string::npos)
        << printed;
    const auto [serveStatus, servePrinted] = cli(
        {"serve", "--port", "0", "--db", database_, "--refuse-status", "0", "--refuse-count", "1"});
    EXPECT_EQ(serveStatus, 2);
    EXPECT_NE(servePrinted.find("status is from 100 to 599, not 0"), std::string::npos);
}

// Beyond loopback anyone on the network reaches the collector: the SDK's endpoint stays open,
// but steering takes the token, from the command line and the page alike.
TEST(CollectorTokenTest, BeyondLoopbackOnlyATokenSteers) {
    const Testing::ScratchDirectory scratch;
    const std::filesystem::path& directory = scratch.path();
    const std::string database = (directory / "collector.sqlite").string();
    const auto run = &CollectorTest::cli;
    {
        CollectorStore store(database);
        CollectorServer open(store);
        ASSERT_THROW(open.start("0.0.0.0", 0), std::invalid_argument);
    }
    const auto [openStatus, openPrinted] =
        run({"serve", "--host", "0.0.0.0", "--port", "0", "--db", database});
    EXPECT_EQ(openStatus, 2);
    EXPECT_NE(openPrinted.find("listening on 0.0.0.0 needs a token"), std::string::npos)
        << openPrinted;
    EXPECT_EQ(run({"serve", "--host", "0.0.0.0", "--token", "short", "--db", database}).first, 2);

    const std::string token = "s3cret-token-of-the-team";
    std::ofstream(directory / "token") << token << "\n";
    {
        CollectorStore store(database);
        CollectorServer server(store, {}, token);
        const int port = server.start("0.0.0.0", 0);
        httplib::Client client("127.0.0.1", port);
        const std::string steer = R"({"analytics_enabled":false})";
        const std::pair<httplib::Headers, int> cases[] = {
            {{}, 401},
            {{{"Authorization", "Bearer " + token + "x"}}, 401},
            {{{"Authorization", token}}, 401},
            {{{"Authorization", "Bearer " + token}}, 200},
        };
        for (const auto& [headers, status] : cases) {
            EXPECT_EQ(client.Post("/control/steer", headers, steer, "application/json")->status,
                      status);
        }
        // Hosts on the network name the collector as they know it, and send no token.
        const auto event =
            client.Post("/api/v3/saveEvent", {{"Host", "devbox.lan"}}, "type=2", "text/plain");
        EXPECT_EQ(event->status, 200);
        EXPECT_EQ(Json::parse(client.Get("/control/state")->body).at("token_required"), true);

        const std::string url = "http://127.0.0.1:" + std::to_string(port);
        EXPECT_EQ(run({"refuse", "--url", url, "--count", "3"}).first, 1);
        EXPECT_EQ(run({"refuse", "--url", url, "--count", "3", "--token-file",
                       (directory / "token").string()})
                      .first,
                  0);
        EXPECT_EQ(run({"steer", "--url", url, "--analytics", "on", "--token", token}).first, 0);
        EXPECT_EQ(server.refusal().remaining, 3);
        EXPECT_TRUE(server.steering().analyticsEnabled);
    }
}

// At the limit a body is taken; past it, by a byte or by its pairs, however it comes, the client
// reads 413, not a reset, and nothing is stored. serve_test.py sends 4 MiB in every framing.
TEST_F(CollectorTest, AnswersBodiesOverTheLimit413AndStoresNone) {
    const std::string limit = "x=" + std::string(64 * 1024 - 2, 'x');
    const std::tuple<std::string, std::string, const char*> cases[] = {
        {"one byte over", kEventHead + "Content-Length: 65537\r\n\r\n" + limit + "x", "413"},
        {"until the client stops", kEventHead + "\r\n" + limit + "x", "413"},
        {"257 pairs",
         kEventHead + "Content-Length: 258\r\n\r\n" + std::string(256, '&') + "x=", "413"},
        {"at the limit", kEventHead + "Content-Length: 65536\r\n\r\n" + limit, "200"},
    };
    for (const auto& [framing, request, status] : cases) {
        RawConnection connection(port_);
        std::thread writer([&connection, &request = request] {
            connection.send(request);
            connection.shutdownWrite();
        });
        const std::string answer = connection.receiveAll(10s);
        writer.join();
        EXPECT_EQ(statusLine(answer).substr(9, 3), status) << framing << ": " << statusLine(answer);
    }
    ASSERT_EQ(store_.events().size(), 1U);
    EXPECT_EQ(store_.events().front().body, limit);
    EXPECT_EQ(state().at("turned_away").at("too_large"), 2);
}

// Slow clients hold sockets, never the threads kept for the SDK: with 200 of them sending a
// byte now and then, and the page's threads all taken, an event is answered at once.
// serve_test.py stops the collector among them.
TEST_F(CollectorTest, AnswersTheSdkWithinASecondWhile200SlowClientsHoldConnections) {
    // What each kind of client sends at once, what it then sends a byte at a time, how many.
    const std::tuple<std::string, std::string, int> kinds[] = {
        {"POST /api/v3/saveEvent HTTP/1.1\r\nHo", "X-Slow: yes\r\n", 40},
        {kEventHead + "Content-Length: 100\r\n\r\ntype=", "&", 10},
        {kEventHead + "Transfer-Encoding: chunked\r\n\r\n", "1\r\n&\r\n", 150},
    };
    std::vector<std::unique_ptr<RawConnection>> clients;
    std::vector<std::string> trickles;
    for (const auto& [start, trickle, count] : kinds) {
        for (int index = 0; index < count; ++index) {
            clients.push_back(std::make_unique<RawConnection>(port_));
            clients.back()->send(start);
            trickles.push_back(trickle);
        }
    }
    std::jthread trickler([&](std::stop_token stop) {
        for (std::size_t turn = 0; !stop.stop_requested(); ++turn) {
            for (std::size_t index = 0; index < clients.size(); ++index) {
                clients[index]->send(trickles[index].substr(turn % trickles[index].size(), 1));
            }
            for (int wait = 0; wait < 20 && !stop.stop_requested(); ++wait) {
                std::this_thread::sleep_for(100ms);
            }
        }
    });
    std::this_thread::sleep_for(300ms);
    httplib::Client sdk("127.0.0.1", port_);
    sdk.set_read_timeout(5s);
    const auto sent = std::chrono::steady_clock::now();
    const auto answer = sdk.Post("/api/v3/saveEvent", "type=7&pageName=Orders", "text/plain");
    const auto answeredAfter = std::chrono::steady_clock::now() - sent;
    EXPECT_TRUE(answer && answer->status == 200);
    EXPECT_LT(answeredAfter, 1s);
    // The chunked bodies, read as they come, take every page thread: the page is turned away.
    EXPECT_TRUE(Testing::eventually(
        [&] {
            const auto page = client_.Get("/api/counts");
            return page && page->status == 503;
        },
        20s));
}

// Each read may be quick while the request never ends: the deadline bounds the whole request,
// its head, a body with a length and a body in chunks alike.
TEST(BoundedServerTest, EndsARequestNotWholeByItsDeadlineThoughEveryReadIsQuick) {
    BoundedServer::Limits limits;
    limits.reception.requestDeadline = 600ms;
    BoundedServer server(limits, [](const httplib::Request&) { return true; });
    server.http().Post("/", [&server](const httplib::Request&, httplib::Response& response,
                                      const httplib::ContentReader& reader) {
        std::string body;
        response.status =
            server.readBody(reader, body) == BoundedServer::BodyRead::Complete ? 200 : 400;
    });
    const int port = server.start("127.0.0.1", 0);
    const std::string head = "POST / HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    const std::pair<std::string, std::string> cases[] = {
        {"POST / HTTP/1.1\r\n", "X-Slow: yes\r\n"},
        {head + "Content-Length: 1000\r\n\r\n", "&"},
        {head + "Transfer-Encoding: chunked\r\n\r\n", "1\r\n&\r\n"},
    };
    for (const auto& [start, trickle] : cases) {
        RawConnection client(port);
        const auto began = std::chrono::steady_clock::now();
        bool open = client.send(start);
        for (std::size_t turn = 0; open && std::chrono::steady_clock::now() - began < 5s; ++turn) {
            std::this_thread::sleep_for(20ms);
            open = client.send(trickle.substr(turn % trickle.size(), 1)) && !client.heardBack();
        }
        const auto ended = std::chrono::steady_clock::now() - began;
        EXPECT_GT(ended, 500ms) << start;
        EXPECT_LT(ended, 2s) << start;
    }
    EXPECT_EQ(server.counters().timedOut, 3U);
}

// A head that arrives before its body sends the connection back to wait: the request is served
// once the body is whole, and a request behind it on the same connection after it.
TEST(BoundedServerTest, ServesABodyThatArrivesInPiecesAfterItsHeadAndTheRequestBehindIt) {
    BoundedServer server(BoundedServer::Limits{}, [](const httplib::Request&) { return true; });
    server.http().Post("/", [&server](const httplib::Request&, httplib::Response& response,
                                      const httplib::ContentReader& reader) {
        std::string body;
        server.readBody(reader, body);
        response.set_content(body, "text/plain");
    });
    RawConnection client(server.start("127.0.0.1", 0));
    const std::string head = "POST / HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 10\r\n\r\n";
    for (const std::string& piece : {head, std::string("first"), "-half" + head + "later"}) {
        client.send(piece);
        std::this_thread::sleep_for(50ms);
    }
    client.send("-half");
    client.shutdownWrite();
    const std::string answers = client.receiveAll(5s);
    EXPECT_NE(answers.find("\r\n\r\nfirst-half"), std::string::npos) << answers;
    EXPECT_NE(answers.find("\r\n\r\nlater-half"), std::string::npos) << answers;
}

}  // namespace
}  // namespace NorvAnalytic::Collector
