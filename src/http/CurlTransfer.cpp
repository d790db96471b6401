#include "http/CurlTransfer.h"

#include <cstdlib>
#include <new>

namespace NorvAnalytic {

namespace {

constexpr long kIdleTimeoutSeconds = 60;
// A server that trickles its answer slowly enough to pass the idle check still ends here.
constexpr long kWholeRequestTimeoutSeconds = 300;
constexpr long kMaxRedirects = 16;
// libcurl's smallest. A body is a few hundred bytes, and over HTTP/2 each of 64 handles kept its
// own upload buffer: at the default 64 KiB, 4 MiB of heap and over half a MiB resident.
constexpr long kUploadBufferBytes = 16 * 1024;

}  // namespace

void CurlRequest::complete(std::optional<std::string> data, std::optional<HttpResponse> response,
                           std::optional<Error> error) noexcept {
    try {
        completion(std::move(data), response, std::move(error));
    } catch (...) {
    }
}

void CurlRequest::cancel(const char* why) noexcept {
    complete(std::nullopt, std::nullopt, HttpClient::error(HttpClientErrorCancelled, why));
}

bool CurlTransfer::environmentNamesProxy() {
    // The names libcurl reads for http and https; an empty value names no proxy.
    for (const char* name :
         {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') {
            return true;
        }
    }
    return false;
}

std::unique_ptr<CurlTransfer> CurlTransfer::make(CURLSH* share,
                                                 const std::atomic<std::uint64_t>* cancelBefore,
                                                 bool proxyFromEnvironment) {
    std::unique_ptr<CurlTransfer> transfer(new CurlTransfer);
    CURL* easy = transfer->easy_ = curl_easy_init();
    if (easy == nullptr) {
        throw std::bad_alloc();
    }
    transfer->cancelBefore_ = cancelBefore;
    curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->errorText_);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &receive);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
    curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, kMaxAnswerBytes);
    curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2TLS);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, kIdleTimeoutSeconds);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, kIdleTimeoutSeconds);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, kWholeRequestTimeoutSeconds);
    curl_easy_setopt(easy, CURLOPT_SHARE, share);
    curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &beforeRequest);
    curl_easy_setopt(easy, CURLOPT_PREREQDATA, transfer.get());
    if (!proxyFromEnvironment) {
        // Told there is none, libcurl reads no proxy variable for each request, on this thread,
        // where a host's setenv would race with it.
        curl_easy_setopt(easy, CURLOPT_PROXY, "");
        curl_easy_setopt(easy, CURLOPT_NOPROXY, "");
    }
    return transfer;
}

CurlTransfer& CurlTransfer::of(CURL* easy) {
    char* transfer = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &transfer);
    return *reinterpret_cast<CurlTransfer*>(transfer);
}

CurlTransfer::~CurlTransfer() {
    curl_easy_cleanup(easy_);
    curl_url_cleanup(parsedUrl_);
    curl_slist_free_all(headers_);
}

// libcurl's call after a connection is ready (or reused) and before the request is written:
// the last moment a cancel keeps a request off the wire.
int CurlTransfer::beforeRequest(void* user, char*, char*, int, int) {
    auto* transfer = static_cast<CurlTransfer*>(user);
    if (transfer->request_.sequence < transfer->cancelBefore_->load(std::memory_order_acquire)) {
        return CURL_PREREQFUNC_ABORT;
    }
    transfer->started_ = true;
    return CURL_PREREQFUNC_OK;
}

std::size_t CurlTransfer::receive(char* bytes, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<CurlTransfer*>(user);
    const std::size_t length = size * count;
    if (transfer->answer_.size() + length > static_cast<std::size_t>(kMaxAnswerBytes)) {
        transfer->tooLong_ = true;
        return 0;  // curl stops reading this answer
    }
    try {
        transfer->answer_.append(bytes, length);
    } catch (...) {
        return 0;
    }
    return length;
}

void CurlTransfer::load(CurlRequest request, curl_slist* connectTo, const std::string& caInfo,
                        std::uint64_t settingsVersion) {
    if (settingsVersion_ != settingsVersion) {
        curl_easy_setopt(easy_, CURLOPT_CONNECT_TO, connectTo);
        curl_easy_setopt(easy_, CURLOPT_CAINFO, caInfo.empty() ? nullptr : caInfo.c_str());
        settingsVersion_ = settingsVersion;
    }
    request_ = std::move(request);
    busy_ = true;
    const HttpRequest& http = request_.request;
    // The handle keeps its options from one request to the next: most requests change only the
    // body, so the rest is set when it changes.
    if (!http.headers.empty()) {
        for (const auto& [name, value] : http.headers) {
            const std::string field = name + ": " + value;
            if (curl_slist* appended = curl_slist_append(headers_, field.c_str())) {
                headers_ = appended;
            }
        }
        curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers_);
    }
    if (http.url != url_) {
        setUrl(http.url);
        // Over TLS, wait for the first connection's protocol: HTTP/2 carries every request on
        // it. A plain one is HTTP/1.1, whose first answer may be long in coming.
        curl_easy_setopt(easy_, CURLOPT_PIPEWAIT, url_.starts_with("https:") ? 1L : 0L);
    }
    const bool methodChanged = http.method != method_;
    if (methodChanged) {
        method_ = http.method;
    }
    if (method_ == "GET") {
        curl_easy_setopt(easy_, CURLOPT_HTTPGET, 1L);
    } else {
        // The body stays in the request until the transfer ends: curl reads it from there.
        curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(http.body.size()));
        curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, http.body.c_str());
    }
    if (methodChanged) {
        curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST,
                         method_ == "GET" || method_ == "POST" ? nullptr : method_.c_str());
    }
    errorText_[0] = '\0';
}

void CurlTransfer::setUrl(const std::string& url) {
    url_ = url;
    // Parsing a URL is a tenth of what libcurl does for a request, so the handle is given it
    // parsed, as libcurl would parse the text. A URL that does not parse is given as text, and
    // libcurl rejects it in its own words.
    CURLU* parsed = curl_url();
    if (parsed != nullptr &&
        curl_url_set(parsed, CURLUPART_URL, url_.c_str(),
                     CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
        curl_url_cleanup(parsed);
        parsed = nullptr;
    }
    curl_easy_setopt(easy_, CURLOPT_CURLU, parsed);
    curl_url_cleanup(parsedUrl_);
    parsedUrl_ = parsed;
    // The text too: libcurl names it in its messages and its effective URL.
    curl_easy_setopt(easy_, CURLOPT_URL, url_.c_str());
}

CurlTransfer::Outcome CurlTransfer::finish(CURLcode result) {
    long status = 0;
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    const bool cut = tooLong_ || result == CURLE_FILESIZE_EXCEEDED;
    Outcome outcome;
    if (status > 0 && (result == CURLE_OK || cut)) {
        // An answer over the cap is no document the SDK reads, but its status still counts.
        outcome.data = cut ? std::string() : std::move(answer_);
        outcome.response = HttpResponse{status};
    } else if (result == CURLE_ABORTED_BY_CALLBACK && !started_) {
        // Stopped before a byte of it was written: a cancel.
        outcome.error = HttpClient::error(HttpClientErrorCancelled,
                                          "The request was cancelled before it was sent");
    } else {
        outcome.error = HttpClient::error(HttpClientErrorTransport,
                                          errorText_[0] != '\0' ? errorText_ : curl_easy_strerror(result));
    }
    outcome.request = takeBack();
    outcome.request.request = HttpRequest();
    return outcome;
}

CurlRequest CurlTransfer::takeBack() {
    CurlRequest request = std::move(request_);
    reset();
    return request;
}

void CurlTransfer::reset() {
    if (headers_ != nullptr) {
        curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, nullptr);
        curl_slist_free_all(headers_);
        headers_ = nullptr;
    }
    busy_ = false;
    answer_ = std::string();
    tooLong_ = false;
    started_ = false;
    request_ = CurlRequest();
}

}  // namespace NorvAnalytic
