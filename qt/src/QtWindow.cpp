#include "QtWindow.h"

#include "QtAlertBox.h"

namespace NorvAnalytic {

std::shared_ptr<ViewController> QtWindow::rootViewController() const {
    return std::const_pointer_cast<QtWindow>(shared_from_this());
}

void QtWindow::presentViewController(std::shared_ptr<AlertController> alert, bool,
                                     std::function<void()> completion) {
    if (!widget_ || !alert) {
        return;
    }
    // Owned by the window and deleted when it closes; open() does not spin a nested event loop,
    // so the answer that presents it finishes before anything else runs.
    auto* box = new QtAlertBox(std::move(alert), widget_);
    box->open();
    if (completion) {
        completion();
    }
}

}  // namespace NorvAnalytic
