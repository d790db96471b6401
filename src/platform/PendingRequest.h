#pragma once

#include <NorvAnalytic/HttpClient.h>

#include <cstddef>

namespace NorvAnalytic {

// The collection protocol's answers are a few hundred bytes; a longer one is cut off here and
// handed over as an empty (so not JSON) answer with its status.
constexpr std::size_t kMaxAnswerBytes = 1 << 20;

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
