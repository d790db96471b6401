#include <NorvAnalytic/CurlHttpClient.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

namespace NorvAnalytic {
namespace {

namespace fs = std::filesystem;

// A self-signed certificate for "collector.invalid", written out as the CA file to trust.
std::pair<X509*, EVP_PKEY*> makeCertificate(const fs::path& caFile) {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* certificate = X509_new();
    X509_set_version(certificate, 2);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -60);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
    X509_set_pubkey(certificate, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("collector.invalid"), -1, -1,
                               0);
    X509_set_issuer_name(certificate, X509_get_subject_name(certificate));
    X509_sign(certificate, key, EVP_sha256());
    FILE* file = std::fopen(caFile.c_str(), "w");
    PEM_write_X509(file, certificate);
    std::fclose(file);
    return {certificate, key};
}

TEST(CurlHttpClientTlsTest, VerifiesThePeerFollowsRedirectsAndConnectsWhereTold) {
    const fs::path caFile =
        fs::temp_directory_path() / ("norv-tls-" + std::to_string(::getpid()) + ".pem");
    const auto [certificate, key] = makeCertificate(caFile);
    httplib::SSLServer server(certificate, key);
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
    auto post = [&client, url = "https://collector.invalid:" + port + "/moved"] {
        std::promise<std::pair<long, std::string>> outcome;
        client.send(
            HttpRequest{"POST", url, "value=1"},
            [&outcome](std::optional<std::string> data, std::optional<HttpResponse> response,
                       std::optional<std::string> error) {
                outcome.set_value(
                    {response ? response->statusCode : -1, data.value_or(error.value_or(""))});
            });
        return outcome.get_future().get();
    };
    // The system's authorities do not know this certificate: no answer is accepted.
    const auto [unverifiedStatus, unverified] = post();
    EXPECT_EQ(unverifiedStatus, -1);
    EXPECT_NE(unverified.find("certificate"), std::string::npos) << unverified;
    client.setCaInfo(caFile.string());
    const auto [status, data] = post();
    EXPECT_EQ(status, 200) << data;
    EXPECT_EQ(data, "secure value=1");

    server.stop();
    serving.join();
    fs::remove(caFile);
    X509_free(certificate);
    EVP_PKEY_free(key);
}

}  // namespace
}  // namespace NorvAnalytic
