#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/Timer.h>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

namespace NorvAnalytic {

// Threads, and what runs where.
// - The main queue runs, one at a time and never overlapping, everything that changes the SDK's
//   shared state: each request's answer (handleEventResponse), the one-second resend timer
//   (checkEvents) with the saved-event list it drains, the update prompt and the alert's button
//   handlers. An SDK thread named "norv-main", started on first use, runs it; with a host
//   executor that thread only hands ready tasks over and the host's thread runs them. That
//   host thread is then the main queue's thread: isCurrent() is true on it, in a task or not,
//   and true on any other thread only while a task runs there.
// - Each CurlHttpClient has one network thread, "norv-http", started by its first send. Only it
//   drives libcurl. Completions run there (on the caller's thread once the client has stopped)
//   and must not block: the SDK's own completion posts the answer to the main queue (unless it
//   can change nothing) and hands waiting events over while the answer's place is free.
// - "norv-handover", started by the first event call, builds each waiting event's body and
//   hands it to the HTTP client, at most 1,024 events in the client at once.
// - Host threads make the event calls, the Keychain and Connection calls, Platform's set…()
//   and this queue's async, sync and scheduledTimer, from any thread. An event call never waits
//   for the network: it reads the controller and adds a compact record to the waiting events,
//   waking the hand-over thread when it sleeps.
// - The headless application's openURL starts xdg-open and a detached thread that only reaps it.
// Each lock is held only to read or swap what it guards, never while a task, handler or
// completion runs: the main queue's lock guards its tasks, timers, executor and clock; the
// waiting events' lock their list and the window's counts, released before the client is
// called; a CurlHttpClient's lock its waiting requests, its state and its settings (curl's
// handles belong to the network thread), and the registry of clients that exit stops is taken
// before it, never inside; the controller's lock its properties; then the request start times,
// the bundle registry, each keychain backend's store and the reachability targets have a lock
// each.
// Platform's services and the log sink are swapped atomically. The saved-event list has no lock:
// only the main queue touches it, and main-queue-only code asserts so in debug builds.
// sync() from the main queue's thread runs inline, so a host's UI thread may call anything,
// tapActionAtIndex included, without waiting for itself; from any other thread sync() waits for
// the queue, so it must not come from a thread that a queued task waits for.

// The serial queue on which the SDK keeps its shared state: answers, the resend timer and the
// update alert all run here, one after the other. By default an SDK-owned thread runs it; a
// host with its own UI loop installs an executor so that everything runs on its UI thread.
class NORVANALYTIC_EXPORT MainQueue {
public:
    using Task = std::function<void()>;
    // Receives each ready task; must run them in the order received, one at a time, all on one
    // thread (the host's UI thread).
    using Executor = std::function<void(Task)>;

    static MainQueue& main();

    void async(Task task);
    // Runs the task on the queue and waits for it; runs it at once when already on the queue.
    void sync(Task task);
    std::shared_ptr<Timer> scheduledTimer(std::chrono::duration<double> interval, bool repeats,
                                          std::function<void()> action);
    // True on the thread that runs a host executor's tasks, and wherever a task runs now.
    bool isCurrent() const;

    // Installs a host executor (nullptr returns to the SDK's own thread). The thread that runs
    // its first task becomes the main queue's thread.
    void setExecutor(Executor executor);
    // The same, naming that thread at once: a host that installs from its UI thread passes
    // std::this_thread::get_id(), and calls from that thread never wait for its loop to turn.
    void setExecutor(Executor executor, std::thread::id executorThread);

    MainQueue(const MainQueue&) = delete;
    MainQueue& operator=(const MainQueue&) = delete;

private:
    MainQueue();
};

}  // namespace NorvAnalytic
