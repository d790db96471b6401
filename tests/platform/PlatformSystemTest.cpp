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

#include "platform/HeadlessApplication.h"
#include "support/LocalHttpServer.h"
#include "support/ThreadList.h"

// The platform's parts that meet real system pieces: sockets and TLS, and the desktop's programs.
namespace NorvAnalytic {
namespace {

namespace fs = std::filesystem;
using Testing::LocalHttpServer;
using testing::MatchesRegex;
using namespace std::chrono_literals;

// A fresh directory of this test's own under the system's temporary directory.
fs::path makeDirectory() {
    std::string pattern = (fs::temp_directory_path() / "norv-platform-XXXXXX").string();
    return ::mkdtemp(pattern.data()) != nullptr ? fs::path(pattern) : fs::path();
}

// Sends one POST; the future holds what its completion got: "<status or -1> <[data] or no data>",
// then " error: <text>" if an error came.
std::future<std::string> post(HttpClient& client, const std::string& url, const std::string& body) {
    auto promise = std::make_shared<std::promise<std::string>>();
    client.send(HttpRequest{"POST", url, body}, [promise](auto data, auto response, auto error) {
        promise->set_value(std::to_string(response ? response->statusCode : -1) +
                           (data ? " [" + *data + "]" : " no data") +
                           (error ? " error: " + *error : ""));
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
    const std::string files = makeDirectory() / "collector";
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
                MatchesRegex("-1 no data error: .*certificate.*"));
    client.setCaInfo(files + ".pem");
    // Nothing in a form body is escaped, so every byte must arrive as it was handed over.
    const std::string raw = std::string("a=c d\r\n{\"x\":1}&\xC3\xA9\xE2\x82\xAC\0tail", 25);
    // An empty answer still hands over data, empty but present.
    EXPECT_EQ(post(client, url + "/moved", raw).get() + post(client, url + "/fail", "fail").get() +
                  post(client, url + "/moved", "").get(),
              "200 [" + raw + "]500 [fail]200 []");

    server.stop();
    fs::remove_all(fs::path(files).parent_path());
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
        EXPECT_THAT(outcome.get(), MatchesRegex("-1 no data error: .+"));
    }
}

TEST(CurlHttpClientTest, AHostileServerNeverGrowsMemoryOrTheQueueAndLaterEventsStillArrive) {
    const std::string dropped = std::string("-1 no data error: ") + CurlHttpClient::kDroppedMessage;
    LocalHttpServer server;
    // An answer cut at the limit arrives empty, with its status.
    auto release = holdAnswers(server, {500, std::string(2 << 20, '{')});
    std::vector<DiagnosticLevel> said;  // only send(), on this thread, reports
    Platform::setDiagnosticsSink([&](DiagnosticLevel level, auto&) { said.push_back(level); });
    CurlHttpClient client;
    client.setQueueLimits(1, 1 << 20);
    std::vector<std::future<std::string>> outcomes;
    // Six hold every connection; of the three that then wait, the two oldest are dropped.
    for (std::size_t index = 0; index < 9; ++index) {
        outcomes.push_back(post(client, server.url(), "value=1"));
        ASSERT_TRUE(index > 5 || server.waitForCount(index + 1));
    }
    EXPECT_EQ(outcomes[6].get() + outcomes[7].get(), dropped + dropped);
    EXPECT_EQ(client.droppedRequests(), 2U);
    EXPECT_EQ(said, std::vector{DiagnosticLevel::Warning});
    release.set_value();
    for (std::size_t index : {0, 1, 2, 3, 4, 5, 8}) {
        ASSERT_EQ(outcomes[index].wait_for(10s), std::future_status::ready);
        EXPECT_EQ(outcomes[index].get(), "500 []");
    }
    EXPECT_EQ(post(client, server.url(), "later").get(), "500 []");
    Platform::setDiagnosticsSink(nullptr);
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

// Python's HTTP/1.1 server answers requests written back to back in order, so after a trial it
// gets them 16 at a time; cpp-httplib (the LocalHttpServer) drops a request read along with
// another, so it fails the trial and gets one at a time. Both echo the body. The first round
// holds the trial, the second runs on what it decided.
TEST(CurlHttpClientTest, RequestsWrittenBackToBackEachGetTheirOwnAnswerOnceWhateverTheServer) {
    const char* script =
        "import http.server as h, os\n"
        "class E(h.BaseHTTPRequestHandler):\n"
        "    protocol_version = 'HTTP/1.1'\n"
        "    def do_POST(self):\n"
        "        body = self.rfile.read(int(self.headers['Content-Length']))\n"
        "        self.send_response(200)\n"
        "        self.send_header('Content-Length', str(len(body)))\n"
        "        self.end_headers()\n"
        "        self.wfile.write(body)\n"
        "    def log_message(self, *args): pass\n"
        "s = h.ThreadingHTTPServer(('127.0.0.1', 0), E)\n"
        "print(s.server_address[1], os.getpid(), flush=True)\n"
        "s.serve_forever()\n";
    const fs::path directory = makeDirectory();
    std::ofstream(directory / "echo.py") << script;
    FILE* python = ::popen(("exec python3 " + (directory / "echo.py").string()).c_str(), "r");
    ASSERT_NE(python, nullptr);
    int pythonPort = 0;
    int pythonPid = 0;
    ASSERT_EQ(std::fscanf(python, "%d %d", &pythonPort, &pythonPid), 2);
    LocalHttpServer httplibServer;
    httplibServer.setResponder([](auto&, const std::string& body) {
        return LocalHttpServer::Answer{200, body};
    });

    for (const std::string& url :
         {"http://127.0.0.1:" + std::to_string(pythonPort) + "/e", httplibServer.url()}) {
        CurlHttpClient client;
        for (int round = 0; round < 2; ++round) {
            std::vector<std::future<std::string>> outcomes;
            std::string expected;
            for (int index = 0; index < 150; ++index) {
                const std::string body = "n=" + std::to_string(round * 150 + index);
                outcomes.push_back(post(client, url, body));
                expected += "200 [" + body + "]\n";
            }
            std::string got;
            for (auto& outcome : outcomes) {
                got += outcome.get() + "\n";
            }
            EXPECT_EQ(got, expected) << url;
        }
    }
    // Each request reached httplib once: the dropped ones were sent again, the others not.
    auto bodies = httplibServer.bodies();
    std::ranges::sort(bodies);
    EXPECT_EQ(std::ranges::unique(bodies).size(), 0U);
    EXPECT_EQ(bodies.size(), 300U);
    ::kill(pythonPid, SIGTERM);
    ::pclose(python);
    fs::remove_all(directory);
}

// True once this process has no child left, running or unreaped. The opener and its detached
// reaper finish in their own time, so this waits for them up to the given limit.
bool noChildrenWithin(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    siginfo_t info{};
    while (::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != -1 || errno != ECHILD) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

TEST(HeadlessApplicationTest, AsksTheDesktopAndOpensWithoutAShellLeavingNoProcessBehind) {
    const fs::path directory = makeDirectory();
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

    // An opener that lingers is waited for by a thread of ours, named and with the host's
    // signals blocked, that ends once the opener is reaped.
    const auto lingering = script("lingering", "exec sleep 0.5\n");
    ASSERT_TRUE(HeadlessApplication(mime, lingering).openURL(store));
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(Testing::runsWithSignalBlocked("norv-reaper", SIGTERM));
    ASSERT_TRUE(noChildrenWithin(10s));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(Testing::threadsByName().count("norv-reaper"), 0U);
    fs::remove_all(directory);
}

}  // namespace
}  // namespace NorvAnalytic
