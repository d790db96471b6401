#include "GtkAlertDialog.h"

#include <optional>

namespace NorvAnalytic {

namespace {

struct Shown {
    std::shared_ptr<AlertController> alert;
    std::optional<int> cancelIndex;
};

const char* text(const Text& value) { return value ? value->c_str() : ""; }

void answered(GtkDialog* dialog, int response, gpointer data) {
    auto* shown = static_cast<Shown*>(data);
    int index = response;
    if (response < 0) {
        // Esc or the close button: the cancel button's answer (a forced alert never gets here).
        if (!shown->cancelIndex) {
            return;
        }
        index = *shown->cancelIndex;
    }
    // Kept past the dialog's end, which frees `shown`.
    auto alert = shown->alert;
    if (response >= 0) {
        gtk_window_destroy(GTK_WINDOW(dialog));  // closing destroys it without us
    }
    // On the GTK thread, the main queue's: the handler runs here, now.
    alert->tapActionAtIndex(static_cast<std::size_t>(index));
}

gboolean closing(GtkWindow*, gpointer data) {
    // Without a cancel button there is no answer for closing: a forced update stays up.
    return static_cast<Shown*>(data)->cancelIndex ? FALSE : TRUE;
}

void forget(gpointer data, GClosure*) {
    auto* shown = static_cast<Shown*>(data);
    // Gone without a press (its window was destroyed): the next update may show a new alert.
    shown->alert->setOnScreen(false);
    delete shown;
}

}  // namespace

void GtkAlertDialog::present(std::shared_ptr<AlertController> alert, GtkWindow* parent) {
    GtkWidget* dialog = gtk_message_dialog_new(
        parent, static_cast<GtkDialogFlags>(GTK_DIALOG_MODAL | GTK_DIALOG_DESTROY_WITH_PARENT),
        GTK_MESSAGE_INFO, GTK_BUTTONS_NONE, "%s", text(alert->title()));
    gtk_window_set_title(GTK_WINDOW(dialog), text(alert->title()));
    if (alert->message()) {
        gtk_message_dialog_format_secondary_text(GTK_MESSAGE_DIALOG(dialog), "%s",
                                                 alert->message()->c_str());
    }
    auto* shown = new Shown{alert, std::nullopt};
    const auto& actions = alert->actions();
    std::optional<int> defaultIndex;
    for (std::size_t index = 0; index < actions.size(); ++index) {
        const int response = static_cast<int>(index);
        gtk_dialog_add_button(GTK_DIALOG(dialog), actions[index]->title().c_str(), response);
        if (actions[index]->style() == AlertActionStyle::Cancel) {
            shown->cancelIndex = response;
        } else if (!defaultIndex) {
            defaultIndex = response;
        }
    }
    if (defaultIndex) {
        gtk_dialog_set_default_response(GTK_DIALOG(dialog), *defaultIndex);
    }
    g_signal_connect(dialog, "close-request", G_CALLBACK(closing), shown);
    // The last connection frees `shown` when the dialog goes, however it goes.
    g_signal_connect_data(dialog, "response", G_CALLBACK(answered), shown, forget,
                          static_cast<GConnectFlags>(0));
    alert->setOnScreen(true);
    gtk_window_present(GTK_WINDOW(dialog));
}

}  // namespace NorvAnalytic
