#pragma once

#include <NorvAnalytic/MainQueue.h>

#include <deque>
#include <mutex>

namespace NorvAnalytic {

// The main queue's tasks in the order posted, run by one idle source on the default GLib main
// context. Never destroyed, so a task posted while the host shuts down has somewhere to go; once
// the loop is gone, tasks run where they are posted, as without a host.
class GtkEventLoop {
public:
    static GtkEventLoop& shared();

    // True the first time: the loop then takes the tasks. False when it already does.
    bool attach();
    // Runs what still waits here, then lets posters run their tasks themselves.
    void detach();
    void post(MainQueue::Task task);

private:
    GtkEventLoop() = default;
    static int drain(void* self);

    std::mutex mutex_;
    std::deque<MainQueue::Task> tasks_;
    bool attached_ = false;
    bool scheduled_ = false;
};

}  // namespace NorvAnalytic
