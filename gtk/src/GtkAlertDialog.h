#pragma once

#include <NorvAnalytic/AlertController.h>

#include <gtk/gtk.h>

#include <memory>

namespace NorvAnalytic {

// The SDK's alert as a modal GtkMessageDialog. It marks the alert on screen while it shows and
// reports the pressed button through tapActionAtIndex.
class GtkAlertDialog {
public:
    // Shows it over `parent` and returns at once; GTK owns the dialog from then on.
    static void present(std::shared_ptr<AlertController> alert, GtkWindow* parent);

    GtkAlertDialog() = delete;
};

}  // namespace NorvAnalytic
