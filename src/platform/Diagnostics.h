#pragma once

#include <NorvAnalytic/Platform.h>

#include <chrono>
#include <cstddef>
#include <string>

namespace NorvAnalytic {

// The diagnostics channel: a line goes to the host's sink when one is installed, else nowhere.
// Lines wait in a bounded queue, in the order said, and one thread of ours (norv-sink) hands
// them to the sink, so the sink never runs under a lock of ours and may call any public
// function. What a full queue drops is counted and said once there is room again.
class Diagnostics {
public:
    static constexpr std::size_t kMaxWaitingLines = 1000;
    static constexpr std::size_t kMaxWaitingBytes = 1 << 20;

    // Waits until every line said before the call has reached the sink it replaces, and until
    // that sink's last call has returned: after this the old sink is never called again. From
    // the sink itself it does not wait.
    static void setSink(Platform::DiagnosticsSink sink);
    // Cheap enough to guard building a message that would go nowhere.
    static bool isOn();
    static void report(DiagnosticLevel level, const std::string& message);
    // Waits until every line said before the call has reached the sink, at most until deadline;
    // at once on the sink's own thread. False when the deadline came first.
    static bool waitUntilDelivered(std::chrono::steady_clock::time_point deadline);
    // How many lines a full queue dropped.
    static std::size_t droppedCount();
};

}  // namespace NorvAnalytic
