#include "GtkHostWindow.h"

#include "GtkAlertDialog.h"

namespace NorvAnalytic {

GtkHostWindow::GtkHostWindow(GtkWindow* window) : window_(window) {
    g_object_add_weak_pointer(G_OBJECT(window_), reinterpret_cast<gpointer*>(&window_));
}

GtkHostWindow::~GtkHostWindow() {
    if (window_ != nullptr) {
        g_object_remove_weak_pointer(G_OBJECT(window_), reinterpret_cast<gpointer*>(&window_));
    }
}

std::shared_ptr<ViewController> GtkHostWindow::rootViewController() const {
    return std::const_pointer_cast<GtkHostWindow>(shared_from_this());
}

void GtkHostWindow::presentViewController(std::shared_ptr<AlertController> alert, bool,
                                          std::function<void()> completion) {
    if (window_ == nullptr || !alert) {
        return;
    }
    GtkAlertDialog::present(std::move(alert), window_);
    if (completion) {
        completion();
    }
}

}  // namespace NorvAnalytic
