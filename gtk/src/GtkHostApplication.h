#pragma once

#include <NorvAnalytic/Application.h>

#include <memory>

namespace NorvAnalytic {

// The GTK host as the SDK's application: its active window (else its first visible one) is the
// key window, and URLs open through gtk_show_uri.
class GtkHostApplication final : public Application {
public:
    // Asks `desktop` (the SDK's default application) which schemes have a handler.
    explicit GtkHostApplication(std::shared_ptr<Application> desktop)
        : desktop_(std::move(desktop)) {}

    std::shared_ptr<Window> keyWindow() const override;
    bool canOpenURL(const URL& url) override;
    // Opens the manifest's address behind an "itms-services" link, any other URL as it is.
    bool openURL(const URL& url) override;

private:
    std::shared_ptr<Application> desktop_;
};

}  // namespace NorvAnalytic
