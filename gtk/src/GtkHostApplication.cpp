#include "GtkHostApplication.h"

#include <gtk/gtk.h>

#include <string>
#include <string_view>

#include "GtkHostWindow.h"

namespace NorvAnalytic {

namespace {

constexpr std::string_view kManifestLinkPrefix = "itms-services://?action=download-manifest&url=";

// The active toplevel, else the first visible one: without a window manager (Xvfb, a kiosk)
// no window is ever marked active.
GtkWindow* hostWindow() {
    GListModel* toplevels = gtk_window_get_toplevels();
    GtkWindow* visible = nullptr;
    const guint count = g_list_model_get_n_items(toplevels);
    for (guint index = 0; index < count; ++index) {
        auto* window = static_cast<GtkWindow*>(g_list_model_get_item(toplevels, index));
        g_object_unref(window);  // the list keeps it alive
        if (!gtk_widget_get_visible(GTK_WIDGET(window))) {
            continue;
        }
        if (gtk_window_is_active(window)) {
            return window;
        }
        if (visible == nullptr) {
            visible = window;
        }
    }
    return visible;
}

}  // namespace

std::shared_ptr<Window> GtkHostApplication::keyWindow() const {
    GtkWindow* window = hostWindow();
    return window != nullptr ? std::make_shared<GtkHostWindow>(window) : nullptr;
}

bool GtkHostApplication::canOpenURL(const URL& url) { return schemes_.canOpen(url); }

bool GtkHostApplication::openURL(const URL& url) {
    std::string_view link = url.absoluteString();
    // No desktop handles this scheme, but the manifest it points at is an ordinary address.
    if (link.starts_with(kManifestLinkPrefix)) {
        link.remove_prefix(kManifestLinkPrefix.size());
    }
    const std::string target(link);
    if (!g_uri_is_valid(target.c_str(), G_URI_FLAGS_NONE, nullptr)) {
        return false;
    }
    // Asynchronous: the desktop's handler starts later, and nothing here waits for it.
    gtk_show_uri(hostWindow(), target.c_str(), GDK_CURRENT_TIME);
    return true;
}

}  // namespace NorvAnalytic
