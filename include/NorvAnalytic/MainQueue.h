#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/Timer.h>

#include <chrono>
#include <functional>
#include <memory>

namespace NorvAnalytic {

// The serial queue on which the SDK keeps its shared state: answers, the resend timer and the
// update alert all run here, one after the other. By default an SDK-owned thread runs it; a
// host with its own UI loop installs an executor so that everything runs on its UI thread.
class NORVANALYTIC_EXPORT MainQueue {
public:
    using Task = std::function<void()>;
    // Receives each ready task; must run them in the order received, one at a time.
    using Executor = std::function<void(Task)>;

    static MainQueue& main();

    void async(Task task);
    // Runs the task on the queue and waits for it; runs it at once when already on the queue.
    void sync(Task task);
    std::shared_ptr<Timer> scheduledTimer(std::chrono::duration<double> interval, bool repeats,
                                          std::function<void()> action);
    bool isCurrent() const;

    // Installs a host executor (nullptr returns to the SDK's own thread).
    void setExecutor(Executor executor);

    MainQueue(const MainQueue&) = delete;
    MainQueue& operator=(const MainQueue&) = delete;

private:
    MainQueue();
};

}  // namespace NorvAnalytic
