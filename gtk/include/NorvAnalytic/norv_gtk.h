#ifndef NORVANALYTIC_NORV_GTK_H
#define NORVANALYTIC_NORV_GTK_H

/* Runs the SDK inside a GTK 4 application (library NorvAnalyticGtk, package component Gtk,
 * target NorvAnalytic::Gtk, `pkg-config --cflags --libs norvanalytic-gtk`).
 *
 * After norv_gtk_install():
 * - the main queue runs on the default GLib main context, so answers, the resend timer and the
 *   update alert run on the GTK thread, and any call of ours from that thread runs at once;
 * - the update alert is a modal GtkMessageDialog over the active window (over the first visible
 *   window when none is active), its buttons in the alert's order, "Update" the default; Esc
 *   and closing answer "Cancel", and a forced alert, which has none, stays up;
 * - links open through gtk_show_uri, so through the desktop's URI handlers. No handler knows the
 *   "itms-services://?action=download-manifest&url=X" link the SDK makes, so X, the manifest's
 *   address, is opened instead;
 * - when the default GApplication shuts down, or after norv_gtk_uninstall(), the main queue
 *   returns to the SDK's own thread, and tasks still waiting for the GTK loop run there. */

#include <NorvAnalytic/Export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Call once on the GTK thread after gtk_init (for a GtkApplication: in "startup"), before
 * norv_init_with_key. 1 when the adapter is in place (a second call changes nothing); 0, with
 * a g_warning saying why, when GTK is not initialised or another thread runs its loop. */
NORVANALYTIC_EXPORT int norv_gtk_install(void);

/* For a host that stops its own loop: hands the main queue back to the SDK's thread. */
NORVANALYTIC_EXPORT void norv_gtk_uninstall(void);

#ifdef __cplusplus
}
#endif

#endif /* NORVANALYTIC_NORV_GTK_H */
