#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/Timer.h>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

namespace NorvAnalytic {

// What a host may rely on. Answers, the resend timer and the update alert run on this queue,
// one at a time and in order: on an SDK thread, "norv-main", or, with an executor installed, on
// the host's UI thread; never two at once, also across a change of executor. What a task or the
// executor throws is said on the diagnostics sink and the queue goes on. Event calls may come
// from any thread and never wait for the network. sync() from the queue's own thread runs
// inline, so a host's UI thread may call anything of ours without waiting for itself; from any
// other thread sync() waits for the queue, so it must not come from a thread that a queued task
// waits for. docs/ARCHITECTURE.md names every thread, queue and lock.

// The serial queue on which the SDK keeps its shared state: answers, the resend timer and the
// update alert all run here, one after the other. By default an SDK-owned thread runs it; a
// host with its own UI loop installs an executor so that everything runs on its UI thread.
class NORVANALYTIC_EXPORT MainQueue {
public:
    using Task = std::function<void()>;
    // Receives work for the host's UI thread (each call a task that runs whatever of the queue
    // is ready); must run what it receives in the order received, one at a time, all on one
    // thread. What it receives after it was replaced finds nothing to do. It may throw (a loop
    // not ready yet): the work waits and is handed over again shortly.
    using Executor = std::function<void(Task)>;

    static MainQueue& main();

    void async(Task task);
    // Runs the task on the queue and waits for it; runs it at once when already on the queue.
    // What the task throws is thrown here. Returns without running it when it never can (the
    // process exits).
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
