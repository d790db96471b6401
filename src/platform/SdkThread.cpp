#include "platform/SdkThread.h"

#include <pthread.h>
#include <signal.h>

#include <utility>

namespace NorvAnalytic {

std::thread startSdkThread(const char* name, std::function<void()> body) {
    sigset_t blocked;
    sigfillset(&blocked);
    // A fault is delivered to the thread that caused it; blocked, it would kill the process
    // without the host's handler (a crash reporter) ever seeing it.
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
        sigdelset(&blocked, fault);
    }
    sigset_t callers;
    pthread_sigmask(SIG_SETMASK, &blocked, &callers);
    struct RestoreMask {
        const sigset_t& mask;
        ~RestoreMask() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } restore{callers};
    // The new thread inherits the blocked mask from here.
    return std::thread([name, body = std::move(body)] {
        pthread_setname_np(pthread_self(), name);
        try {
            body();
        } catch (...) {
            // Nothing may leave a thread of ours into the host's process.
        }
    });
}

void abandonParentsThread(std::thread& thread) {
    if (thread.joinable()) {
        // Never freed: a joinable std::thread may not be destroyed, and this one cannot be joined.
        auto* parents = new std::thread;
        *parents = std::move(thread);
    }
}

}  // namespace NorvAnalytic
