#pragma once

#include <NorvAnalytic/HttpClient.h>

namespace NorvAnalytic {

// A request the HTTP client holds, with the completion it owes.
struct PendingRequest {
    HttpRequest request;
    HttpClient::Completion completion;
    // Set when the request went back to the queue after its connection died without its
    // answer: a second such death fails it, so a server that always drops it cannot keep it.
    bool resent = false;
    // Set when the request must go through curl's own transfer (a redirect to follow).
    bool viaCurl = false;
};

}  // namespace NorvAnalytic
