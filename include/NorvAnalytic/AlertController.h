#pragma once

#include <NorvAnalytic/AlertAction.h>
#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/Types.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace NorvAnalytic {

enum class AlertControllerStyle { ActionSheet, Alert };

// The SDK's alert. The host's UI shows it when a view controller presents it, marks it on
// screen, and reports a tap with tapActionAtIndex().
class NORVANALYTIC_EXPORT AlertController {
public:
    static std::shared_ptr<AlertController> alertControllerWithTitle(Text title, Text message,
                                                                     AlertControllerStyle style);

    void addAction(std::shared_ptr<AlertAction> action);

    const Text& title() const { return title_; }
    const Text& message() const { return message_; }
    AlertControllerStyle preferredStyle() const { return style_; }
    const std::vector<std::shared_ptr<AlertAction>>& actions() const { return actions_; }

    bool isOnScreen() const { return onScreen_.load(); }
    void setOnScreen(bool onScreen) { onScreen_.store(onScreen); }
    // Dismisses the alert and runs the action's handler, on the main queue, before returning.
    void tapActionAtIndex(std::size_t index);

private:
    AlertController(Text title, Text message, AlertControllerStyle style);

    Text title_;
    Text message_;
    AlertControllerStyle style_;
    std::vector<std::shared_ptr<AlertAction>> actions_;
    std::atomic<bool> onScreen_{false};
};

}  // namespace NorvAnalytic
