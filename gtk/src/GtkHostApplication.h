#pragma once

#include <NorvAnalytic/Application.h>

#include <memory>

#include "ui/SchemeHandlerAnswers.h"

namespace NorvAnalytic {

// The GTK host as the SDK's application: its active window (else its first visible one) is the
// key window, and URLs open through gtk_show_uri.
class GtkHostApplication final : public Application {
public:
    // Asks `desktop` (the SDK's default application) which schemes have a handler.
    explicit GtkHostApplication(std::shared_ptr<Application> desktop)
        : schemes_(std::move(desktop), "norv-gtk-mime") {}

    std::shared_ptr<Window> keyWindow() const override;
    // From what the desktop answered before: asking it takes up to seconds, which the GTK
    // thread never waits for. A scheme not asked yet answers false and is asked on our thread.
    bool canOpenURL(const URL& url) override;
    // Asks the desktop about url's scheme ahead of the first canOpenURL.
    void prefetch(const URL& url) { schemes_.prefetch(url); }
    // Opens the manifest's address behind an "itms-services" link, any other URL as it is.
    bool openURL(const URL& url) override;

private:
    SchemeHandlerAnswers schemes_;
};

}  // namespace NorvAnalytic
