#pragma once

#include <NorvAnalytic/MainQueue.h>

#include <deque>
#include <mutex>

namespace NorvAnalytic {

// What the main queue hands the GTK thread (drains of its own list of tasks), in the order
// posted, run by one idle source on the default GLib main context. Never destroyed, so a task
// posted while the host shuts down has somewhere to go; once the loop is gone, tasks run where
// they are posted, as without a host.
class GtkEventLoop {
public:
    static GtkEventLoop& shared();

    // True the first time: the loop then takes the tasks. False when it already does.
    bool attach();
    // Drops what still waits here (the main queue, back on its own thread, runs its tasks there
    // and a drain left behind would find nothing to do), then lets posters run tasks themselves.
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
