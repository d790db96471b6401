/* norv-gtk-example-host: a GTK 4 host written in C. One window whose buttons send events; the
 * app-open event it reports at start-up brings up the update alert when the collector offers a
 * version. --host HOST:PORT names the collector; --screenshot FILE saves the window with the
 * alert over it, then quits. */
#include <NorvAnalytic/norv.h>
#include <NorvAnalytic/norv_gtk.h>
#include <gtk/gtk.h>
#include <stdio.h>

static gboolean running = TRUE;

static void diagnostics(int level, const char* line, void* user) {
    (void)user;
    if (level >= NORV_DIAGNOSTIC_WARNING) {
        fprintf(stderr, "NorvAnalytic: %s\n", line);
    }
}

static void app_open(GtkButton* button, gpointer data) {
    (void)button, (void)data;
    norv_send_app_open_event();
}

static void orders_page(GtkButton* button, gpointer data) {
    (void)button, (void)data;
    norv_send_event_with_page_name("Orders");
}

static void log_in(GtkButton* button, gpointer data) {
    (void)button, (void)data;
    norv_send_user_login_event("user=ann", "200 OK", "ann", "North");
}

static void log_out(GtkButton* button, gpointer data) {
    (void)button, (void)data;
    norv_send_user_logout_event();
}

static GtkWidget* shown_dialog(void) {
    GListModel* toplevels = gtk_window_get_toplevels();
    GtkWidget* found = NULL;
    for (guint index = 0; found == NULL && index < g_list_model_get_n_items(toplevels); ++index) {
        GtkWidget* window = g_list_model_get_item(toplevels, index);
        if (GTK_IS_MESSAGE_DIALOG(window) && gtk_widget_get_mapped(window)) {
            found = window;
        }
        g_object_unref(window);
    }
    return found;
}

struct picture {
    GtkWidget* window;
    const char* file;
    int polls;
    int painted;
    int result;
};

/* Without a window manager (Xvfb) nothing places the dialog, so the picture draws it centred
 * over the window, where a desktop puts a modal dialog. */
static int save_picture(GtkWidget* window, GtkWidget* dialog, const char* file) {
    const float window_width = (float)gtk_widget_get_width(window);
    const float window_height = (float)gtk_widget_get_height(window);
    const float dialog_width = (float)gtk_widget_get_width(dialog);
    const float dialog_height = (float)gtk_widget_get_height(dialog);
    GtkSnapshot* snapshot = gtk_snapshot_new();
    GdkPaintable* window_paint = gtk_widget_paintable_new(window);
    GdkPaintable* dialog_paint = gtk_widget_paintable_new(dialog);
    gdk_paintable_snapshot(window_paint, snapshot, window_width, window_height);
    /* The window dimmed behind its modal dialog, and the dialog's edge, as a desktop draws them. */
    const GdkRGBA dim = {0.0f, 0.0f, 0.0f, 0.3f};
    gtk_snapshot_append_color(snapshot, &dim,
                              &GRAPHENE_RECT_INIT(0.0f, 0.0f, window_width, window_height));
    gtk_snapshot_translate(snapshot, &GRAPHENE_POINT_INIT((window_width - dialog_width) / 2.0f,
                                                         (window_height - dialog_height) / 2.0f));
    const GdkRGBA background = {0.96f, 0.96f, 0.95f, 1.0f};
    gtk_snapshot_append_color(snapshot, &background,
                              &GRAPHENE_RECT_INIT(0.0f, 0.0f, dialog_width, dialog_height));
    gdk_paintable_snapshot(dialog_paint, snapshot, dialog_width, dialog_height);
    const GdkRGBA edge = {0.5f, 0.5f, 0.5f, 1.0f};
    const GdkRGBA edges[4] = {edge, edge, edge, edge};
    const float widths[4] = {1.0f, 1.0f, 1.0f, 1.0f};
    GskRoundedRect outline;
    gsk_rounded_rect_init_from_rect(&outline,
                                    &GRAPHENE_RECT_INIT(0.0f, 0.0f, dialog_width, dialog_height),
                                    0.0f);
    gtk_snapshot_append_border(snapshot, &outline, widths, edges);
    GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
    graphene_rect_t bounds;
    gsk_render_node_get_bounds(node, &bounds);
    GdkTexture* texture =
        gsk_renderer_render_texture(gtk_native_get_renderer(GTK_NATIVE(window)), node, &bounds);
    const gboolean saved = gdk_texture_save_to_png(texture, file);
    g_object_unref(texture);
    gsk_render_node_unref(node);
    g_object_unref(window_paint);
    g_object_unref(dialog_paint);
    return saved ? 0 : 1;
}

static gboolean photograph(gpointer data) {
    struct picture* picture = data;
    GtkWidget* dialog = shown_dialog();
    if (dialog == NULL || ++picture->painted < 10) {
        /* Half a second for the dialog to be laid out and painted; 20 s for it to come. */
        if (dialog == NULL && ++picture->polls > 400) {
            fputs("norv-gtk-example-host: no alert within 20 s\n", stderr);
            running = FALSE;
            return G_SOURCE_REMOVE;
        }
        return G_SOURCE_CONTINUE;
    }
    picture->result = save_picture(picture->window, dialog, picture->file);
    running = FALSE;
    return G_SOURCE_REMOVE;
}

static void closed(GtkWindow* window, gpointer data) {
    (void)window, (void)data;
    running = FALSE;
}

int main(int argc, char** argv) {
    const char* host = NULL;
    struct picture picture = {NULL, NULL, 0, 0, 0};
    for (int index = 1; index + 1 < argc; index += 2) {
        if (g_strcmp0(argv[index], "--host") == 0) {
            host = argv[index + 1];
        } else if (g_strcmp0(argv[index], "--screenshot") == 0) {
            picture.file = argv[index + 1];
        }
    }
    gtk_init();
    if (!norv_gtk_install()) {
        return 1;
    }
    norv_set_diagnostics_sink(diagnostics, NULL);
    norv_set_main_bundle("com.example.NorvGtkHost", "2.3", "41");
    if (host != NULL && !norv_set_collection_server_host(host)) {
        return 2;
    }
    norv_init_with_key("demo-app-key");
    norv_set_secure_url(0);
    norv_check_updates(1);

    GtkWidget* window = gtk_window_new();
    gtk_window_set_title(GTK_WINDOW(window), "Orders");
    gtk_window_set_default_size(GTK_WINDOW(window), 520, 340);
    GtkWidget* column = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
    gtk_widget_set_margin_start(column, 16);
    gtk_widget_set_margin_end(column, 16);
    gtk_widget_set_margin_top(column, 16);
    gtk_widget_set_margin_bottom(column, 16);
    gtk_box_append(GTK_BOX(column), gtk_label_new("Each button sends one event to the collector."));
    const struct {
        const char* title;
        GCallback send;
    } buttons[] = {
        {"Open the app", G_CALLBACK(app_open)},
        {"Show the Orders page", G_CALLBACK(orders_page)},
        {"Log in as ann", G_CALLBACK(log_in)},
        {"Log out", G_CALLBACK(log_out)},
    };
    for (size_t index = 0; index < G_N_ELEMENTS(buttons); ++index) {
        GtkWidget* button = gtk_button_new_with_label(buttons[index].title);
        g_signal_connect(button, "clicked", buttons[index].send, NULL);
        gtk_box_append(GTK_BOX(column), button);
    }
    gtk_window_set_child(GTK_WINDOW(window), column);
    g_signal_connect(window, "destroy", G_CALLBACK(closed), NULL);
    gtk_window_present(GTK_WINDOW(window));
    norv_send_app_open_event();

    if (picture.file != NULL) {
        picture.window = window;
        g_timeout_add(50, photograph, &picture);
    }
    while (running) {
        g_main_context_iteration(NULL, TRUE);
    }
    norv_gtk_uninstall();
    /* Events still on their way are lost at exit: wait for their answers first. */
    norv_flush(5000);
    return picture.result;
}
