// The GTK adapter's C entry points: the main queue on the default GLib main context, the GTK
// host as the SDK's application.
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/URL.h>

#include <gtk/gtk.h>

#include <thread>

#include "GtkEventLoop.h"
#include "GtkHostApplication.h"
#include "NorvAnalytic/norv_gtk.h"

using NorvAnalytic::GtkEventLoop;
using NorvAnalytic::MainQueue;
using NorvAnalytic::Platform;

namespace {

void shutdown(GApplication*, gpointer) { norv_gtk_uninstall(); }

}  // namespace

extern "C" {

int norv_gtk_install(void) {
    try {
        if (!gtk_is_initialized()) {
            g_warning("norv_gtk_install(): call gtk_init first; nothing done");
            return 0;
        }
        GMainContext* context = g_main_context_default();
        // Taken only when no other thread runs the loop: then this thread is the GTK thread.
        if (!g_main_context_acquire(context)) {
            g_warning("norv_gtk_install(): call it on the thread that runs GTK; nothing done");
            return 0;
        }
        g_main_context_release(context);
        if (!GtkEventLoop::shared().attach()) {
            return 1;
        }
        if (GApplication* application = g_application_get_default()) {
            g_signal_connect(application, "shutdown", G_CALLBACK(shutdown), nullptr);
        }
        auto gtkApplication =
            std::make_shared<NorvAnalytic::GtkHostApplication>(Platform::application());
        // The store app's link, which the update alert asks about: answered before it is needed.
        if (const auto storeApp = NorvAnalytic::URL::URLWithString("lindenStoreQRWPT://")) {
            gtkApplication->prefetch(*storeApp);
        }
        Platform::setApplication(std::move(gtkApplication));
        MainQueue::main().setExecutor(
            [](MainQueue::Task task) { GtkEventLoop::shared().post(std::move(task)); },
            std::this_thread::get_id());
        return 1;
    } catch (...) {
        g_warning("norv_gtk_install(): out of memory; nothing done");
        return 0;
    }
}

void norv_gtk_uninstall(void) {
    try {
        MainQueue::main().setExecutor(nullptr);
        Platform::setApplication(nullptr);
        GtkEventLoop::shared().detach();
    } catch (...) {
        g_warning("norv_gtk_uninstall(): out of memory");
    }
}

}  // extern "C"
