#include "GtkEventLoop.h"

#include <glib.h>

#include <utility>

namespace NorvAnalytic {

GtkEventLoop& GtkEventLoop::shared() {
    static auto* loop = new GtkEventLoop;
    return *loop;
}

bool GtkEventLoop::attach() {
    const std::lock_guard lock(mutex_);
    return !std::exchange(attached_, true);
}

void GtkEventLoop::detach() {
    std::deque<MainQueue::Task> left;
    const std::lock_guard lock(mutex_);
    attached_ = false;
    left.swap(tasks_);
}

void GtkEventLoop::post(MainQueue::Task task) {
    std::unique_lock lock(mutex_);
    if (!attached_) {
        lock.unlock();
        task();
        return;
    }
    tasks_.push_back(std::move(task));
    // One source at a time runs the tasks in order. Not g_main_context_invoke: on the GTK
    // thread it would run a task inside post(), inside the task that posted it.
    if (!std::exchange(scheduled_, true)) {
        g_idle_add_full(G_PRIORITY_DEFAULT, &GtkEventLoop::drain, this, nullptr);
    }
}

int GtkEventLoop::drain(void* self) {
    auto& loop = *static_cast<GtkEventLoop*>(self);
    std::deque<MainQueue::Task> ready;
    {
        const std::lock_guard lock(loop.mutex_);
        ready.swap(loop.tasks_);
    }
    // Only what was ready when the source fired: tasks posted meanwhile wait for the next turn
    // of the loop, so a busy SDK never keeps GTK from drawing.
    for (auto& task : ready) {
        try {
            task();
        } catch (...) {  // nothing of ours unwinds through GLib
        }
    }
    const std::lock_guard lock(loop.mutex_);
    if (loop.tasks_.empty()) {
        loop.scheduled_ = false;
        return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
}

}  // namespace NorvAnalytic
