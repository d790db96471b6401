#pragma once

#include <NorvAnalytic/ViewController.h>
#include <NorvAnalytic/Window.h>

#include <gtk/gtk.h>

namespace NorvAnalytic {

// A toplevel window of the host as the SDK's window and its one screen. The active window is
// already the top-most one (a modal dialog is active itself), so it presents nothing further.
class GtkHostWindow final : public Window,
                            public ViewController,
                            public std::enable_shared_from_this<GtkHostWindow> {
public:
    explicit GtkHostWindow(GtkWindow* window);
    ~GtkHostWindow() override;
    GtkHostWindow(const GtkHostWindow&) = delete;
    GtkHostWindow& operator=(const GtkHostWindow&) = delete;

    std::shared_ptr<ViewController> rootViewController() const override;
    std::shared_ptr<ViewController> presentedViewController() const override { return nullptr; }
    bool isNavigationController() const override { return false; }
    std::vector<std::shared_ptr<ViewController>> viewControllers() const override { return {}; }
    // Shows the alert as a modal dialog over this window and returns without waiting for it.
    void presentViewController(std::shared_ptr<AlertController> alert, bool animated,
                               std::function<void()> completion) override;

private:
    // Cleared by GTK when the window is destroyed.
    GtkWindow* window_;
};

}  // namespace NorvAnalytic
