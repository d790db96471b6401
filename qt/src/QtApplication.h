#pragma once

#include <NorvAnalytic/Application.h>
#include <NorvAnalytic/URL.h>

#include <memory>

#include "ui/SchemeHandlerAnswers.h"

namespace NorvAnalytic {

// The host's QApplication as the SDK's application: the active window is the key window and
// URLs go through QDesktopServices.
class QtApplication final : public Application {
public:
    // Asks `desktop` (the SDK's default application) which schemes have a handler.
    explicit QtApplication(std::shared_ptr<Application> desktop);

    std::shared_ptr<Window> keyWindow() const override;
    // From what the desktop answered before: asking it takes up to seconds, which the GUI
    // thread never waits for. A scheme not asked yet answers false and is asked on our thread.
    bool canOpenURL(const URL& url) override;
    // Opens the manifest's address behind an "itms-services" link, any other URL as it is.
    bool openURL(const URL& url) override;
    // Asks the desktop about url's scheme ahead of the first canOpenURL.
    void prefetch(const URL& url);

private:
    SchemeHandlerAnswers schemes_;
};

}  // namespace NorvAnalytic
