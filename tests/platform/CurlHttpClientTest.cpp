#include <NorvAnalytic/CurlHttpClient.h>

#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
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

// Sends one POST and returns a future of what its completion received.
std::future<Outcome> post(HttpClient& client, const std::string& url, const std::string& body) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    std::future<Outcome> future = promise->get_future();
    client.send(HttpRequest{"POST", url, body},
                [promise](std::optional<std::string> data, std::optional<HttpResponse> response,
                          std::optional<std::string> error) {
                    promise->set_value({std::move(data), response, std::move(error)});
                });
    return future;
}

Outcome await(std::future<Outcome>& future) {
    EXPECT_EQ(future.wait_for(20s), std::future_status::ready);
    return future.get();
}

// A socket bound to an ephemeral loopback port: listening, it accepts connections but never
// answers; not listening, every connection to it is refused.
class LoopbackSocket {
public:
    explicit LoopbackSocket(bool listening) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        socklen_t length = sizeof address;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        if (listening) {
            EXPECT_EQ(::listen(fd_, 16), 0);
        }
    }
    ~LoopbackSocket() { ::close(fd_); }
    LoopbackSocket(const LoopbackSocket&) = delete;
    LoopbackSocket& operator=(const LoopbackSocket&) = delete;

    std::string url() const {
        return "http://127.0.0.1:" + std::to_string(port_) + "/api/v3/saveEvent";
    }

private:
    int fd_;
    int port_ = 0;
};

// A self-signed certificate for "localhost", made in memory and written out as a CA file.
class LocalhostCertificate {
public:
    LocalhostCertificate()
        : key_(EVP_EC_gen("P-256")), certificate_(X509_new()),
          path_(std::filesystem::temp_directory_path() /
                ("norv-curl-test-ca-" + std::to_string(getpid()) + ".pem")) {
        X509_set_version(certificate_, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(certificate_), 1);
        X509_gmtime_adj(X509_getm_notBefore(certificate_), -60);
        X509_gmtime_adj(X509_getm_notAfter(certificate_), 3600);
        X509_set_pubkey(certificate_, key_);
        X509_NAME* name = X509_get_subject_name(certificate_);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("localhost"), -1, -1,
                                   0);
        X509_set_issuer_name(certificate_, name);
        addExtension(NID_subject_alt_name, "DNS:localhost");
        addExtension(NID_basic_constraints, "critical,CA:TRUE");
        X509_sign(certificate_, key_, EVP_sha256());
        FILE* file = std::fopen(path_.c_str(), "w");
        PEM_write_X509(file, certificate_);
        std::fclose(file);
    }
    ~LocalhostCertificate() {
        X509_free(certificate_);
        EVP_PKEY_free(key_);
        std::filesystem::remove(path_);
    }
    LocalhostCertificate(const LocalhostCertificate&) = delete;
    LocalhostCertificate& operator=(const LocalhostCertificate&) = delete;

    X509* certificate() const { return certificate_; }
    EVP_PKEY* key() const { return key_; }
    std::string path() const { return path_.string(); }

private:
    void addExtension(int nid, const char* value) {
        X509V3_CTX context;
        X509V3_set_ctx_nodb(&context);
        X509V3_set_ctx(&context, certificate_, certificate_, nullptr, nullptr, 0);
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
        X509_add_ext(certificate_, extension, -1);
        X509_EXTENSION_free(extension);
    }

    EVP_PKEY* key_;
    X509* certificate_;
    std::filesystem::path path_;
};

TEST(CurlHttpClientTest, DeliversExactBytesAndReturnsStatusAndBody) {
    LocalHttpServer server;
    server.setResponder([](const std::string&, const std::string& body) {
        LocalHttpServer::Answer answer;
        if (body == "fail") {
            answer.status = 500;
            answer.body = R"({"message":"Internal error","code":500,"payload":null})";
        } else if (body == "empty") {
            answer.body.clear();
        }
        return answer;
    });
    CurlHttpClient client;

    // Nothing in a form body is escaped, so every byte must arrive as it was handed over.
    const std::string body =
        std::string("key=a&b=c d\r\nparameters={\"x\":1}&name=\xC3\xA9\xE2\x82\xAC") +
        std::string(1, '\0') + "tail";
    auto ok = post(client, server.url(), body);
    Outcome answered = await(ok);
    ASSERT_TRUE(answered.data.has_value());
    EXPECT_EQ(*answered.data, R"({"message":"ok","code":200,"payload":null})");
    ASSERT_TRUE(answered.response.has_value());
    EXPECT_EQ(answered.response->statusCode, 200);
    EXPECT_FALSE(answered.error.has_value());
    ASSERT_EQ(server.bodies().size(), 1U);
    EXPECT_EQ(server.bodies()[0], body);
    EXPECT_EQ(server.paths()[0], "/api/v3/saveEvent");

    auto failed = post(client, server.url(), "fail");
    Outcome refused = await(failed);
    ASSERT_TRUE(refused.data.has_value());
    EXPECT_EQ(*refused.data, R"({"message":"Internal error","code":500,"payload":null})");
    ASSERT_TRUE(refused.response.has_value());
    EXPECT_EQ(refused.response->statusCode, 500);
    EXPECT_FALSE(refused.error.has_value());

    // An answer without a body still hands over data, empty but present.
    auto empty = post(client, server.url(), "empty");
    Outcome blank = await(empty);
    ASSERT_TRUE(blank.data.has_value());
    EXPECT_TRUE(blank.data->empty());
    ASSERT_TRUE(blank.response.has_value());
    EXPECT_EQ(blank.response->statusCode, 200);
}

TEST(CurlHttpClientTest, RefusedConnectionGivesErrorWithoutData) {
    LoopbackSocket closed(false);
    CurlHttpClient client;

    auto future = post(client, closed.url(), "value=1");
    Outcome outcome = await(future);
    EXPECT_FALSE(outcome.data.has_value());
    EXPECT_FALSE(outcome.response.has_value());
    ASSERT_TRUE(outcome.error.has_value());
    EXPECT_FALSE(outcome.error->empty());
}

TEST(CurlHttpClientTest, SlowServerDoesNotBlockSend) {
    LocalHttpServer server;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    // The server answers 200 only when the test lets it go, and 503 when it gave up waiting:
    // a send() that waited for the answer would make the server give up first.
    server.setResponder([released](const std::string&, const std::string&) {
        LocalHttpServer::Answer answer;
        answer.status = released.wait_for(5s) == std::future_status::ready ? 200 : 503;
        return answer;
    });
    CurlHttpClient client;

    auto future = post(client, server.url(), "value=1");
    release.set_value();
    Outcome outcome = await(future);
    ASSERT_TRUE(outcome.response.has_value());
    EXPECT_EQ(outcome.response->statusCode, 200);
}

TEST(CurlHttpClientTest, ConnectToRoutesAHostToAnotherAddress) {
    LocalHttpServer server;
    CurlHttpClient client;
    client.connectTo("collector.invalid:8787", "127.0.0.1:" + std::to_string(server.port()));

    auto future = post(client, "http://collector.invalid:8787/api/v3/saveEvent", "value=2");
    Outcome outcome = await(future);
    ASSERT_TRUE(outcome.response.has_value()) << outcome.error.value_or("");
    EXPECT_EQ(outcome.response->statusCode, 200);
    ASSERT_EQ(server.bodies().size(), 1U);
    EXPECT_EQ(server.bodies()[0], "value=2");
}

TEST(CurlHttpClientTest, FollowsRedirects) {
    httplib::Server server;
    server.set_keep_alive_timeout(1);
    server.Post("/moved", [](const httplib::Request&, httplib::Response& answer) {
        answer.set_redirect("/api/v3/saveEvent", 307);
    });
    server.Post("/api/v3/saveEvent", [](const httplib::Request& request,
                                        httplib::Response& answer) {
        answer.set_content("arrived " + request.body, "text/plain");
    });
    const int port = server.bind_to_any_port("127.0.0.1");
    std::thread serving([&] { server.listen_after_bind(); });
    while (!server.is_running()) {
        std::this_thread::sleep_for(1ms);
    }
    {
        CurlHttpClient client;
        auto future = post(client, "http://127.0.0.1:" + std::to_string(port) + "/moved",
                           "value=3");
        Outcome outcome = await(future);
        ASSERT_TRUE(outcome.response.has_value()) << outcome.error.value_or("");
        EXPECT_EQ(outcome.response->statusCode, 200);
        EXPECT_EQ(outcome.data, "arrived value=3");
    }
    server.stop();
    serving.join();
}

TEST(CurlHttpClientTest, VerifiesTlsPeersAgainstTheConfiguredAuthority) {
    LocalhostCertificate certificate;
    httplib::SSLServer server(certificate.certificate(), certificate.key());
    // Clients keep their connections open; the server must not wait long for them at stop().
    server.set_keep_alive_timeout(1);
    server.Post("/api/v3/saveEvent",
                [](const httplib::Request& request, httplib::Response& answer) {
                    answer.set_content("secure " + request.body, "text/plain");
                });
    const int port = server.bind_to_any_port("127.0.0.1");
    std::thread serving([&] { server.listen_after_bind(); });
    while (!server.is_running()) {
        std::this_thread::sleep_for(1ms);
    }
    const std::string url = "https://localhost:" + std::to_string(port) + "/api/v3/saveEvent";
    const std::string address = "127.0.0.1:" + std::to_string(port);

    // The system's authorities do not know this certificate: no answer is accepted.
    CurlHttpClient untrusting;
    untrusting.connectTo("localhost:" + std::to_string(port), address);
    auto refused = post(untrusting, url, "value=1");
    Outcome unverified = await(refused);
    EXPECT_FALSE(unverified.data.has_value());
    EXPECT_FALSE(unverified.response.has_value());
    EXPECT_NE(unverified.error.value_or("").find("certificate"), std::string::npos)
        << unverified.error.value_or("");

    CurlHttpClient trusting;
    trusting.setCaInfo(certificate.path());
    trusting.connectTo("localhost:" + std::to_string(port), address);
    auto accepted = post(trusting, url, "value=1");
    Outcome verified = await(accepted);
    ASSERT_TRUE(verified.response.has_value()) << verified.error.value_or("");
    EXPECT_EQ(verified.response->statusCode, 200);
    EXPECT_EQ(verified.data, "secure value=1");

    server.stop();
    serving.join();
}

TEST(CurlHttpClientTest, RequestsFromManyThreadsAllCompleteExactlyOnce) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 250;
    constexpr int kTotal = kThreads * kPerThread;
    LocalHttpServer server;
    CurlHttpClient client;
    std::vector<std::atomic<int>> completions(kTotal);
    std::atomic<int> delivered{0};
    std::promise<void> allDone;
    std::atomic<int> finished{0};

    std::vector<std::thread> senders;
    for (int thread = 0; thread < kThreads; ++thread) {
        senders.emplace_back([&, thread] {
            for (int index = thread * kPerThread; index < (thread + 1) * kPerThread; ++index) {
                client.send(HttpRequest{"POST", server.url(), "event=" + std::to_string(index)},
                            [&, index](std::optional<std::string>,
                                       std::optional<HttpResponse> response,
                                       std::optional<std::string>) {
                                if (response && response->statusCode == 200) {
                                    delivered.fetch_add(1);
                                }
                                completions[index].fetch_add(1);
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
    ASSERT_EQ(allDone.get_future().wait_for(60s), std::future_status::ready);

    EXPECT_EQ(delivered.load(), kTotal);
    for (int index = 0; index < kTotal; ++index) {
        EXPECT_EQ(completions[index].load(), 1) << "request " << index;
    }
    const std::vector<std::string> bodies = server.bodies();
    const std::set<std::string> distinct(bodies.begin(), bodies.end());
    EXPECT_EQ(bodies.size(), static_cast<std::size_t>(kTotal));
    EXPECT_EQ(distinct.size(), static_cast<std::size_t>(kTotal));
}

TEST(CurlHttpClientTest, DestroyedClientCompletesPendingRequestsWithError) {
    LoopbackSocket silent(true);
    std::vector<std::future<Outcome>> futures;
    {
        CurlHttpClient client;
        // More than the client keeps in flight, so some are still in its own queue.
        for (int index = 0; index < 100; ++index) {
            futures.push_back(post(client, silent.url(), "value=" + std::to_string(index)));
        }
    }
    for (std::future<Outcome>& future : futures) {
        ASSERT_EQ(future.wait_for(0s), std::future_status::ready);
        Outcome outcome = future.get();
        EXPECT_FALSE(outcome.data.has_value());
        EXPECT_FALSE(outcome.response.has_value());
        EXPECT_TRUE(outcome.error.has_value());
    }
}

}  // namespace
}  // namespace NorvAnalytic
