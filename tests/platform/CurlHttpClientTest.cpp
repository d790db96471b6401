#include <NorvAnalytic/CurlHttpClient.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/LocalHttpServer.h"

namespace NorvAnalytic {
namespace {

using Testing::LocalHttpServer;
using namespace std::chrono_literals;

struct Outcome {
    std::optional<std::string> data;
    std::optional<HttpResponse> response;
    std::optional<std::string> error;
};

// Sends one POST; the future holds what its completion received.
std::future<Outcome> post(HttpClient& client, const std::string& url, const std::string& body) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    client.send(HttpRequest{"POST", url, body},
                [promise](std::optional<std::string> data, std::optional<HttpResponse> response,
                          std::optional<std::string> error) {
                    promise->set_value({std::move(data), response, std::move(error)});
                });
    return promise->get_future();
}

TEST(CurlHttpClientTest, DeliversTheExactBytesAndHandsOverStatusAndBody) {
    LocalHttpServer server;
    server.setResponder([](const std::string&, const std::string& body) {
        if (body == "fail") {
            return LocalHttpServer::Answer{500, "refused", {}};
        }
        return LocalHttpServer::Answer{200, body == "empty" ? "" : "ok", {}};
    });
    CurlHttpClient client;
    // Nothing in a form body is escaped, so every byte must arrive as it was handed over.
    const std::string raw = std::string("a=c d\r\n{\"x\":1}&\xC3\xA9\xE2\x82\xAC\0tail", 25);
    const std::vector<std::tuple<std::string, long, std::string>> rows = {
        {raw, 200, "ok"}, {"fail", 500, "refused"}, {"empty", 200, ""}};
    for (const auto& [body, status, data] : rows) {
        Outcome outcome = post(client, server.url(), body).get();
        ASSERT_TRUE(outcome.response.has_value()) << outcome.error.value_or("");
        EXPECT_EQ(outcome.response->statusCode, status);
        // An empty answer still hands over data, empty but present.
        EXPECT_EQ(outcome.data, data);
        EXPECT_FALSE(outcome.error.has_value());
        EXPECT_EQ(server.bodies().back(), body);
    }
}

TEST(CurlHttpClientTest, NoAnswerGivesAnErrorWithoutDataAndADestroyedClientCompletesAll) {
    LocalHttpServer silent;
    std::promise<void> release;
    silent.setResponder(
        [held = release.get_future().share()](const std::string&, const std::string&) {
            held.wait();
            return LocalHttpServer::Answer{};
        });
    std::vector<std::future<Outcome>> futures;
    {
        CurlHttpClient client;
        futures.push_back(post(client, "http://127.0.0.1:0/", "value=0"));
        EXPECT_EQ(futures.back().wait_for(20s), std::future_status::ready);
        // More than the client keeps in flight, so some still wait in its own queue.
        for (int index = 1; index <= 20; ++index) {
            futures.push_back(post(client, silent.url(), "value=" + std::to_string(index)));
        }
    }
    release.set_value();
    for (std::future<Outcome>& future : futures) {
        ASSERT_EQ(future.wait_for(0s), std::future_status::ready);
        Outcome outcome = future.get();
        EXPECT_FALSE(outcome.data.has_value());
        EXPECT_FALSE(outcome.response.has_value());
        EXPECT_FALSE(outcome.error.value_or("").empty());
    }
}

TEST(CurlHttpClientTest, SendsFromManyThreadsWithoutWaitingAndCompletesEachOnce) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 50;
    constexpr int kTotal = kThreads * kPerThread;
    LocalHttpServer server;
    // Answers wait until every send returned; a send that waited for its answer would outlast
    // the server's patience and get 503.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    server.setResponder([released](const std::string&, const std::string&) {
        const bool waited = released.wait_for(5s) == std::future_status::ready;
        return LocalHttpServer::Answer{waited ? 200 : 503, "", {}};
    });
    std::atomic<int> delivered{0};
    std::atomic<int> finished{0};
    std::promise<void> allDone;
    CurlHttpClient client;  // made last, so it completes what is pending before the rest goes
    std::vector<std::thread> senders;
    for (int thread = 0; thread < kThreads; ++thread) {
        senders.emplace_back([&, thread] {
            for (int index = thread * kPerThread; index < (thread + 1) * kPerThread; ++index) {
                client.send(HttpRequest{"POST", server.url(), "event=" + std::to_string(index)},
                            [&](std::optional<std::string>, std::optional<HttpResponse> response,
                                std::optional<std::string>) {
                                delivered += response && response->statusCode == 200 ? 1 : 0;
                                if (finished.fetch_add(1) + 1 == kTotal) {
                                    allDone.set_value();
                                }
                            });
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    release.set_value();
    ASSERT_EQ(allDone.get_future().wait_for(60s), std::future_status::ready);

    EXPECT_EQ(delivered.load(), kTotal);
    const std::vector<std::string> bodies = server.bodies();
    EXPECT_EQ(std::set<std::string>(bodies.begin(), bodies.end()).size(),
              static_cast<std::size_t>(kTotal));
}

}  // namespace
}  // namespace NorvAnalytic
