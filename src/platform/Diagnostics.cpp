#include "platform/Diagnostics.h"

#include <atomic>
#include <memory>

namespace NorvAnalytic {

namespace {

std::atomic<std::shared_ptr<const Platform::DiagnosticsSink>>& installedSink() {
    static auto* sink = new std::atomic<std::shared_ptr<const Platform::DiagnosticsSink>>();
    return *sink;
}

// Read on every event call; the shared pointer's load takes a lock in libstdc++.
std::atomic<bool> sinkInstalled{false};

}  // namespace

void Diagnostics::setSink(Platform::DiagnosticsSink sink) {
    const bool installed = static_cast<bool>(sink);
    installedSink().store(installed ? std::make_shared<const Platform::DiagnosticsSink>(
                                          std::move(sink))
                                    : nullptr);
    sinkInstalled.store(installed, std::memory_order_release);
}

bool Diagnostics::isOn() { return sinkInstalled.load(std::memory_order_acquire); }

void Diagnostics::report(DiagnosticLevel level, const std::string& message) {
    if (!isOn()) {
        return;
    }
    if (auto sink = installedSink().load()) {
        // The sink is the host's code, called from our threads: nothing it throws may escape.
        try {
            (*sink)(level, message);
        } catch (...) {
        }
    }
}

}  // namespace NorvAnalytic
