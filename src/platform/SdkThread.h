#pragma once

#include <NorvAnalytic/Export.h>

#include <functional>
#include <thread>

namespace NorvAnalytic {

// Starts a thread of the SDK's: named (`name` starts with "norv-", at most 15 characters) so
// it shows as ours in top -H, gdb and perf, and with every asynchronous signal blocked, so a
// host that takes its signals with sigwait or signalfd never has one delivered to us. What the
// body throws ends the thread quietly. Throws std::system_error when no thread can be had.
// Exported for the UI adapters, which start their threads through it too.
NORVANALYTIC_EXPORT std::thread startSdkThread(const char* name, std::function<void()> body);

// In a child after fork(): lets go of a thread of the parent's, which the child does not have,
// without joining it or ending the process for a joinable thread's destruction.
void abandonParentsThread(std::thread& thread);

}  // namespace NorvAnalytic
