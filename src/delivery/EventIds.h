#pragma once

#include <string>

namespace NorvAnalytic {

// Idempotency keys: one per event, the same on every resend, so that a server can tell a repeated
// event from a new one. A random 128-bit prefix made once per process (and anew in a forked
// child) and a counter: no system call per event.
class EventIds {
public:
    // Off by default: the described system sets no header of its own. Any thread.
    static void setEnabled(bool enabled) noexcept;
    static bool enabled() noexcept;
    // A new key, or the empty text while keys are off.
    static std::string next();
    // The request header that carries a key: a Structured Field string.
    static constexpr const char* kHeader = "Idempotency-Key";
    static std::string headerValue(const std::string& key);
};

}  // namespace NorvAnalytic
