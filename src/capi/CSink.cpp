#include "capi/CSink.h"

#include <condition_variable>
#include <mutex>

namespace NorvAnalytic {

namespace {

struct Installed {
    std::mutex mutex;
    std::condition_variable idle;
    norv_diagnostics_sink sink = nullptr;
    void* user = nullptr;
    int calls = 0;
};

Installed& installed() {
    static auto* state = new Installed;
    return *state;
}

// A sink that sets another sink must not wait for itself.
thread_local bool insideSink = false;

}  // namespace

void CSink::install(norv_diagnostics_sink sink, void* user) {
    auto& state = installed();
    {
        std::unique_lock lock(state.mutex);
        state.sink = sink;
        state.user = user;
        if (!insideSink) {
            state.idle.wait(lock, [&] { return state.calls == 0; });
        }
    }
    if (sink == nullptr) {
        Platform::setDiagnosticsSink(nullptr);
    } else {
        Platform::setDiagnosticsSink(
            [](DiagnosticLevel level, const std::string& line) { report(level, line); });
    }
}

void CSink::report(DiagnosticLevel level, const std::string& line) noexcept {
    auto& state = installed();
    norv_diagnostics_sink sink = nullptr;
    void* user = nullptr;
    {
        const std::lock_guard lock(state.mutex);
        if (state.sink == nullptr) {
            return;
        }
        sink = state.sink;
        user = state.user;
        ++state.calls;
    }
    const bool nested = insideSink;
    insideSink = true;
    try {
        sink(static_cast<int>(level), line.c_str(), user);
    } catch (...) {  // a C++ function given as a C sink may still throw: never out of our thread
    }
    insideSink = nested;
    const std::lock_guard lock(state.mutex);
    if (--state.calls == 0) {
        state.idle.notify_all();
    }
}

}  // namespace NorvAnalytic
