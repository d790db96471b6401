#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/Types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace NorvAnalytic {

struct HttpRequest {
    std::string method;
    std::string url;
    std::string body;
    // Header fields a client must send beyond its own: none by default, an Idempotency-Key per
    // event while NorvAnalytics::setIdempotencyKeys(true).
    std::vector<std::pair<std::string, std::string>> headers = {};
};

struct HttpResponse {
    long statusCode = 0;
};

// The domain of the errors an HttpClient reports to a completion, and their codes. The SDK
// acts on the code; the error's localizedDescription is for people.
inline constexpr const char* kHttpClientErrorDomain = "com.norvanalytic.HttpClient";
enum HttpClientErrorCode : std::int64_t {
    // No answer arrived: no connection, a time-out, a broken TLS handshake, a reset.
    HttpClientErrorTransport = 1,
    // Never sent: a bound on waiting requests was full. Counted and reported where it was
    // dropped, so the SDK says nothing more per event.
    HttpClientErrorDropped = 2,
    // Never sent or never answered: the client was destroyed or the process is exiting.
    HttpClientErrorCancelled = 3,
};

// Moves one request's bytes and reports what came back. The completion runs once, on any
// thread: data and response are absent only when no HTTP answer arrived at all, and then the
// error (domain kHttpClientErrorDomain) says why.
class NORVANALYTIC_EXPORT HttpClient {
public:
    using Completion = std::function<void(std::optional<std::string> data,
                                          std::optional<HttpResponse> response,
                                          std::optional<Error> error)>;
    virtual ~HttpClient() = default;
    virtual void send(HttpRequest request, Completion completion) = 0;
    // Cancels every request sent before the call whose bytes have not been written to the wire:
    // its completion is told HttpClientErrorCancelled, and nothing of it reaches the server. The
    // SDK calls it when the host withdraws consent or forgets the device. This default cancels
    // nothing, so a client that keeps it still sends what it holds.
    virtual void cancelUnsent() {}

    // An error of kHttpClientErrorDomain with this code and text, for a completion.
    static Error error(HttpClientErrorCode code, std::string description);
};

}  // namespace NorvAnalytic
