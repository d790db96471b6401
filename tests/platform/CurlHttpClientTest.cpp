#include <NorvAnalytic/CurlHttpClient.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <thread>
#include <vector>

#include "support/LocalHttpServer.h"

namespace NorvAnalytic {
namespace {

using Testing::LocalHttpServer;
using testing::MatchesRegex;
using namespace std::chrono_literals;

// Sends one POST; the future holds what its completion got: "<status or -1> <[data] or no data>",
// then " error: <text>" if an error came.
std::future<std::string> post(HttpClient& client, const std::string& url, const std::string& body) {
    auto promise = std::make_shared<std::promise<std::string>>();
    client.send(HttpRequest{"POST", url, body},
                [promise](std::optional<std::string> data, std::optional<HttpResponse> response,
                          std::optional<std::string> error) {
                    promise->set_value(std::to_string(response ? response->statusCode : -1) +
                                       (data ? " [" + *data + "]" : " no data") +
                                       (error ? " error: " + *error : ""));
                });
    return promise->get_future();
}

TEST(CurlHttpClientTest, DeliversTheExactBytesAndHandsOverStatusAndBody) {
    LocalHttpServer server;
    server.setResponder([](const std::string&, const std::string& body) {
        return LocalHttpServer::Answer{body == "fail" ? 500 : 200, body == "empty" ? "" : "ok", {}};
    });
    CurlHttpClient client;
    // Nothing in a form body is escaped, so every byte must arrive as it was handed over.
    const std::string raw = std::string("a=c d\r\n{\"x\":1}&\xC3\xA9\xE2\x82\xAC\0tail", 25);
    // An empty answer still hands over data, empty but present.
    for (const auto& [body, outcome] : std::vector<std::pair<std::string, std::string>>{
             {raw, "200 [ok]"}, {"fail", "500 [ok]"}, {"empty", "200 []"}}) {
        EXPECT_EQ(post(client, server.url(), body).get(), outcome);
        EXPECT_EQ(server.bodies().back(), body);
    }
}

TEST(CurlHttpClientTest, SendsFromManyThreadsWithoutWaitingAndADestroyedClientCompletesAll) {
    LocalHttpServer held;
    // Answers wait for the client's end; a send that waited for its answer would get one.
    std::promise<void> release;
    held.setResponder(
        [released = release.get_future().share()](const std::string&, const std::string&) {
            released.wait_for(5s);
            return LocalHttpServer::Answer{};
        });
    std::vector<std::future<std::string>> outcomes(41);
    {
        CurlHttpClient client;
        outcomes[0] = post(client, "http://127.0.0.1:0/", "value=0");
        EXPECT_EQ(outcomes[0].wait_for(20s), std::future_status::ready);
        // More than the client keeps in flight, so some still wait in its own queue.
        std::vector<std::jthread> senders;
        for (std::size_t index = 1; index < outcomes.size(); ++index) {
            senders.emplace_back([&, index] {
                outcomes[index] = post(client, held.url(), "value=" + std::to_string(index));
            });
        }
    }
    release.set_value();
    for (std::future<std::string>& outcome : outcomes) {
        ASSERT_EQ(outcome.wait_for(0s), std::future_status::ready);
        EXPECT_THAT(outcome.get(), MatchesRegex("-1 no data error: .+"));
    }
}

TEST(CurlHttpClientTest, OverTlsVerifiesThePeerFollowsRedirectsAndConnectsWhereTold) {
    // A self-signed certificate for "collector.invalid"; it is also the CA file to trust.
    const std::string files =
        std::filesystem::temp_directory_path() / ("norv-tls-" + std::to_string(::getpid()));
    const std::string make =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 "
        "-nodes -days 1 -subj /CN=collector.invalid -keyout " +
        files + ".key -out " + files + ".pem 2>/dev/null";
    ASSERT_EQ(std::system(make.c_str()), 0);
    httplib::SSLServer server((files + ".pem").c_str(), (files + ".key").c_str());
    // Clients keep their connections open; the server must not wait long for them at stop().
    server.set_keep_alive_timeout(1);
    server.Post("/moved", [](const httplib::Request&, httplib::Response& answer) {
        answer.set_redirect("/api/v3/saveEvent", 307);
    });
    server.Post("/api/v3/saveEvent",
                [](const httplib::Request& request, httplib::Response& answer) {
                    answer.set_content("secure " + request.body, "text/plain");
                });
    const std::string port = std::to_string(server.bind_to_any_port("127.0.0.1"));
    std::thread serving([&] { server.listen_after_bind(); });
    CurlHttpClient client;
    client.connectTo("collector.invalid:" + port, "127.0.0.1:" + port);
    const std::string url = "https://collector.invalid:" + port + "/moved";
    // The system's authorities do not know this certificate: no answer is accepted.
    EXPECT_THAT(post(client, url, "value=1").get(),
                MatchesRegex("-1 no data error: .*certificate.*"));
    client.setCaInfo(files + ".pem");
    EXPECT_EQ(post(client, url, "value=1").get(), "200 [secure value=1]");

    server.stop();
    serving.join();
    std::filesystem::remove(files + ".pem");
    std::filesystem::remove(files + ".key");
}

}  // namespace
}  // namespace NorvAnalytic
