#pragma once

#include <NorvAnalytic/Export.h>

#include <functional>
#include <optional>
#include <string>

namespace NorvAnalytic {

struct HttpRequest {
    std::string method;
    std::string url;
    std::string body;
};

struct HttpResponse {
    long statusCode = 0;
};

// Moves one request's bytes and reports what came back. The completion runs once, on any
// thread: data and response are absent only when no HTTP answer arrived at all, and then the
// error says why.
class NORVANALYTIC_EXPORT HttpClient {
public:
    using Completion = std::function<void(std::optional<std::string> data,
                                          std::optional<HttpResponse> response,
                                          std::optional<std::string> error)>;
    virtual ~HttpClient() = default;
    virtual void send(HttpRequest request, Completion completion) = 0;
};

}  // namespace NorvAnalytic
