#include <NorvAnalytic/CurlHttpClient.h>
#include <NorvAnalytic/Platform.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>
#include <vector>

#include "support/LocalHttpServer.h"
#include "support/ScratchDirectory.h"
#include "support/Eventually.h"
#include "support/ThreadList.h"
#include "ui/HeadlessApplication.h"

// The platform's parts that meet real system pieces: sockets and TLS, and the desktop's programs.
namespace NorvAnalytic {
namespace {

namespace fs = std::filesystem;
using Testing::LocalHttpServer;
using testing::MatchesRegex;
using namespace std::chrono_literals;

// Sends one POST; the future holds what its completion got: "<status or -1> <[data] or no data>",
// then " error: <text>" if an error came.
std::future<std::string> post(HttpClient& client, const std::string& url, const std::string& body) {
    auto promise = std::make_shared<std::promise<std::string>>();
    client.send(HttpRequest{"POST", url, body}, [promise](auto data, auto response, auto error) {
        promise->set_value(std::to_string(response ? response->statusCode : -1) +
                           (data ? " [" + *data + "]" : " no data") +
                           (error ? " error " + std::to_string(error->code) + ": " +
                                        error->localizedDescription.value_or("")
                                  : ""));
    });
    return promise->get_future();
}

// Holds every answer until the returned promise is kept or destroyed: declared after the
// server, it lets the server stop even when a test ends early.
std::promise<void> holdAnswers(LocalHttpServer& server, const LocalHttpServer::Answer& answer) {
    std::promise<void> release;
    server.setResponder([answer, held = release.get_future().share()](auto&, auto&) {
        held.wait();
        return answer;
    });
    return release;
}

TEST(CurlHttpClientTest, OverTlsVerifiesThePeerFollowsRedirectsAndConnectsWhereTold) {
    // A self-signed certificate for "collector.invalid"; it is also the CA file to trust.
    const Testing::ScratchDirectory scratch;
    const std::string files = scratch.path() / "collector";
    const std::string make =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
        "-subj /CN=collector.invalid -out " +
        files + ".pem -keyout " + files;
    ASSERT_EQ(std::system(make.c_str()), 0);
    httplib::SSLServer server((files + ".pem").c_str(), files.c_str());
    server.Post(".*", [](const httplib::Request& request, httplib::Response& answer) {
        request.path == "/moved" ? answer.set_redirect("/api/v3/saveEvent", 307)
                                 : answer.set_content(request.body, "text/plain");
        answer.status = request.path == "/fail" ? 500 : answer.status;
    });
    const std::string port = std::to_string(server.bind_to_any_port("127.0.0.1"));
    const std::jthread serving([&] { server.listen_after_bind(); });
    CurlHttpClient client;
    client.connectTo("collector.invalid:" + port, "127.0.0.1:" + port);
    const std::string url = "https://collector.invalid:" + port;
    // The system's authorities do not know this certificate: no answer is accepted.
    EXPECT_THAT(post(client, url + "/moved", "value=1").get(),
                MatchesRegex("-1 no data error 1: .*certificate.*"));
    client.setCaInfo(files + ".pem");
    // Nothing in a form body is escaped, so every byte must arrive as it was handed over.
    const std::string raw = std::string("a=c d\r\n{\"x\":1}&\xC3\xA9\xE2\x82\xAC\0tail", 25);
    // An empty answer still hands over data, empty but present.
    EXPECT_EQ(post(client, url + "/moved", raw).get() + post(client, url + "/fail", "fail").get() +
                  post(client, url + "/moved", "").get(),
              "200 [" + raw + "]500 [fail]200 []");
    // A URL libcurl cannot read goes nowhere: not to the one the same handle was given before.
    EXPECT_THAT(post(client, "https://collector.invalid:99999/moved", "value=1").get(),
                MatchesRegex("-1 no data error 1: .*URL.*"));
    server.stop();
}

TEST(CurlHttpClientTest, GoesThroughTheEnvironmentsProxyUnlessTheHostIsExempt) {
    // Both answer with who answered and the request's target.
    const auto answerAs = [](const std::string& who) {
        return [who](const httplib::Request& request, httplib::Response& answer) {
            answer.set_content(who + " " + request.target, "text/plain");
        };
    };
    httplib::Server proxy, server;
    proxy.Post(".*", answerAs("proxy"));
    server.Post(".*", answerAs("server"));
    const std::string proxyPort = std::to_string(proxy.bind_to_any_port("127.0.0.1"));
    const std::string url =
        "http://127.0.0.1:" + std::to_string(server.bind_to_any_port("127.0.0.1")) + "/e";
    const std::jthread proxying([&] { proxy.listen_after_bind(); });
    const std::jthread serving([&] { server.listen_after_bind(); });
    const std::vector<std::pair<const char*, std::string>> rows = {
        {"", "200 [proxy " + url + "]"},
        {"127.0.0.1", "200 [server /e]"},
    };
    for (const auto& [exempt, expected] : rows) {
        setenv("http_proxy", ("http://127.0.0.1:" + proxyPort).c_str(), 1);
        setenv("no_proxy", exempt, 1);
        // The environment is read when a client's thread starts: a client for each row.
        CurlHttpClient client;
        EXPECT_EQ(post(client, url, "v").get(), expected) << exempt;
    }
    unsetenv("http_proxy");
    unsetenv("no_proxy");
    proxy.stop();
    server.stop();
}

TEST(CurlHttpClientTest, SendsFromManyThreadsWithoutWaitingAndADestroyedClientCancelsAll) {
    LocalHttpServer server;
    // Answers wait for the client's end; a send that waited for its answer would get one.
    auto release = holdAnswers(server, {});
    std::vector<std::future<std::string>> outcomes(40);
    {
        CurlHttpClient client;
        // More than the client keeps in flight, so some still wait in its own queue.
        std::vector<std::jthread> senders;
        for (std::size_t index = 0; index < outcomes.size(); ++index) {
            senders.emplace_back([&, index] { outcomes[index] = post(client, server.url(), "v"); });
        }
    }
    for (std::future<std::string>& outcome : outcomes) {
        ASSERT_EQ(outcome.wait_for(0s), std::future_status::ready);
        EXPECT_THAT(outcome.get(), MatchesRegex("-1 no data error 3: .+"));
    }
}

TEST(CurlHttpClientTest, AnAnswerPastTheCapArrivesEmptyWithItsStatusAndAFullQueueDrops) {
    LocalHttpServer server;
    std::promise<void> release;
    server.setResponder([held = release.get_future().share()](auto&, const std::string& body) {
        held.wait();
        return LocalHttpServer::Answer{500, body == "long" ? std::string(2 << 20, '{') : "{}"};
    });
    CurlHttpClient client;
    std::vector<std::future<std::string>> outcomes;
    outcomes.push_back(post(client, server.url(), "long"));
    // More than curl's transfers and the waiting list together: the last ones are told at once,
    // by their code, and every other one is answered.
    while (outcomes.size() < 100 + CurlHttpClient::kMaxWaitingRequests) {
        outcomes.push_back(post(client, server.url(), "v"));
    }
    EXPECT_THAT(outcomes.back().get(), MatchesRegex("-1 no data error 2: .+"));
    outcomes.pop_back();
    release.set_value();
    EXPECT_EQ(outcomes.front().get(), "500 []");
    std::size_t answered = 0;
    for (std::size_t index = 1; index < outcomes.size(); ++index) {
        const std::string outcome = outcomes[index].get();
        answered += outcome == "500 [{}]";
        EXPECT_TRUE(outcome == "500 [{}]" || outcome.starts_with("-1 no data error 2: "))
            << outcome;
    }
    // On a busy machine the network thread may not have taken even the first one yet, so the
    // waiting list can hold it too.
    EXPECT_GE(answered, CurlHttpClient::kMaxWaitingRequests - 1);
}

TEST(CurlHttpClientTest, AServerThatNeverAnswersHoldsOnlyItsOwnRequests) {
    LocalHttpServer silent;
    LocalHttpServer good;
    auto release = holdAnswers(silent, {});
    CurlHttpClient client;
    // Six hold its connections, two more wait for them.
    std::vector<std::future<std::string>> held;
    for (int index = 0; index < 8; ++index) {
        held.push_back(post(client, silent.url(), "held"));
    }
    ASSERT_TRUE(silent.waitForCount(6));
    auto answered = post(client, good.url(), "other");
    ASSERT_EQ(answered.wait_for(10s), std::future_status::ready);
    EXPECT_THAT(answered.get(), MatchesRegex("200 .*"));
}

// True once this process has no child left, running or unreaped. The opener and its detached
// reaper finish in their own time, so this waits for them up to the given limit.
bool noChildrenWithin(std::chrono::milliseconds limit) {
    return Testing::eventually([] {
        siginfo_t info{};
        return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
    }, limit);
}

TEST(HeadlessApplicationTest, AsksTheDesktopAndOpensWithoutAShellLeavingNoProcessBehind) {
    const Testing::ScratchDirectory scratch;
    const fs::path& directory = scratch.path();
    auto script = [&](const std::string& name, const std::string& body) {
        std::ofstream(directory / name) << "#!/bin/sh\n" << body;
        fs::permissions(directory / name, fs::perms::owner_all);
        return (directory / name).string();
    };
    // Answers only the query it expects, and exits 0 for any, so only its empty answer says
    // "no handler".
    const std::string mime = script("xdg-mime",
                                    "[ \"$#:$1:$2:$3\" = 3:query:default:x-scheme-handler/"
                                    "lindenstoreqrwpt ] && echo a.desktop; exit 0\n");
    // Leaves a mark only when handed exactly one argument, the URL the test expects.
    const std::string opener =
        script("xdg-open", "cd " + directory.string() +
                               "\n[ \"$#:$1\" = \"1:$(cat expected)\" ] && touch opened\n");
    const auto store = *URL::URLWithString("lindenStoreQRWPT://");

    HeadlessApplication application(mime, opener);
    const auto start = std::chrono::steady_clock::now();
    const auto failing = script("failing", "echo a.desktop; exit 3\n");
    const auto hanging = script("hanging", "echo a.desktop\nexec sleep 60\n");
    EXPECT_EQ((std::vector<bool>{
                  Platform::application()->keyWindow() == nullptr, application.canOpenURL(store),
                  application.canOpenURL(*URL::URLWithString("itms-services://?action=x")),
                  HeadlessApplication(failing, opener).canOpenURL(store),
                  HeadlessApplication(directory / "none", opener).canOpenURL(store),
                  // Past its time limit a query answers "no"; one that waited for the
                  // hanging program instead would answer "yes" a minute later.
                  HeadlessApplication(hanging, opener, 200ms).canOpenURL(store)}),
              (std::vector<bool>{true, true, false, false, false, false}));
    // A query past its time limit is killed, not waited for.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);

    // Through a shell this would run touch twice: in $(...) and after the ';'.
    const std::string hostile = "https://dl.example.com/m.plist?a=$(touch$IFS" +
                                directory.string() + "/a)&b=1;touch$IFS" + directory.string() +
                                "/b;c='$(id)'";
    std::ofstream(directory / "expected") << hostile;
    ASSERT_TRUE(application.openURL(*URL::URLWithString(hostile)));
    // The opener is this process's child until its reaper is done with it; a hanging query
    // killed at its time limit must be gone too.
    ASSERT_TRUE(noChildrenWithin(10s));
    EXPECT_TRUE(fs::exists(directory / "opened"));
    EXPECT_FALSE(fs::exists(directory / "a") || fs::exists(directory / "b"));
    EXPECT_FALSE(HeadlessApplication(mime, directory / "none").openURL(store));

    // An opener that lingers (as long as the browser it starts) is waited for by a thread of
    // ours, named and with the host's signals blocked, that sleeps until it exits and ends once
    // it is reaped.
    const auto lingering = script("lingering", "exec sleep 0.6\n");
    ASSERT_TRUE(HeadlessApplication(mime, lingering).openURL(store));
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(Testing::runsWithSignalBlocked("norv-reaper", SIGTERM));
    EXPECT_EQ(Testing::wakeUpsDuring(300ms,
                                     [](const std::string& name) { return name == "norv-reaper"; }),
              0U);
    ASSERT_TRUE(noChildrenWithin(10s));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(std::ranges::count(Testing::threadList(), "norv-reaper", &Testing::ThreadInfo::name),
              0);
}

}  // namespace
}  // namespace NorvAnalytic
