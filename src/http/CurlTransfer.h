#pragma once

#include <NorvAnalytic/HttpClient.h>
#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace NorvAnalytic {

// A request as the client holds it: what to send, whom to tell, and its place in send() order.
struct CurlRequest {
    HttpRequest request;
    HttpClient::Completion completion;
    // A cancel reaches every request sent before it.
    std::uint64_t sequence = 0;

    // Runs the completion on our thread: nothing it throws may leave it.
    void complete(std::optional<std::string> data, std::optional<HttpResponse> response,
                  std::optional<Error> error) noexcept;
    void cancel(const char* why) noexcept;
};

// One easy handle, kept for the next request, and what its request needs while libcurl works:
// the options, the answer read so far (up to a bound), and whether a byte of the request may have
// been written. Network thread only.
class CurlTransfer {
public:
    static constexpr curl_off_t kMaxAnswerBytes = 1 << 20;

    // A new easy handle for share's connections and TLS sessions; requests sent before
    // *cancelBefore are stopped before libcurl writes them. Without proxyFromEnvironment it
    // goes direct. Throws std::bad_alloc.
    static std::unique_ptr<CurlTransfer> make(CURLSH* share,
                                              const std::atomic<std::uint64_t>* cancelBefore,
                                              bool proxyFromEnvironment);
    // Whether the environment names a proxy libcurl would use for http or https.
    static bool environmentNamesProxy();
    ~CurlTransfer();
    CurlTransfer(const CurlTransfer&) = delete;
    CurlTransfer& operator=(const CurlTransfer&) = delete;

    CURL* easy() const { return easy_; }
    // The transfer that libcurl reports on, from its handle.
    static CurlTransfer& of(CURL* easy);
    // A request is loaded: the handle is in the multi handle.
    bool busy() const { return busy_; }
    bool started() const { return started_; }
    const CurlRequest& request() const { return request_; }
    // Sets the request's options; connectTo and caInfo only when their version changed.
    void load(CurlRequest request, curl_slist* connectTo, const std::string& caInfo,
              std::uint64_t settingsVersion);
    // What libcurl's result means for the completion; the request is handed back with it.
    struct Outcome {
        CurlRequest request;
        std::optional<std::string> data;
        std::optional<HttpResponse> response;
        std::optional<Error> error;
    };
    Outcome finish(CURLcode result);
    // The request, taken back unsent; the handle is ready for the next one.
    CurlRequest takeBack();

private:
    CurlTransfer() = default;
    void reset();
    void setUrl(const std::string& url);
    static int beforeRequest(void* transfer, char*, char*, int, int);
    static std::size_t receive(char* bytes, std::size_t size, std::size_t count, void* transfer);

    CURL* easy_ = nullptr;
    CurlRequest request_;
    curl_slist* headers_ = nullptr;
    std::string answer_;
    bool tooLong_ = false;
    bool busy_ = false;
    // What the handle was last set to: the URL, and libcurl's parse of it, which the handle reads
    // instead of parsing the text again for every request.
    std::string url_;
    CURLU* parsedUrl_ = nullptr;
    std::string method_;
    // Set by libcurl's last call before it writes the request: from then on it is on the wire.
    bool started_ = false;
    const std::atomic<std::uint64_t>* cancelBefore_ = nullptr;
    std::uint64_t settingsVersion_ = 0;
    char errorText_[CURL_ERROR_SIZE] = {};
};

}  // namespace NorvAnalytic
