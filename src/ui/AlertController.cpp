#include <NorvAnalytic/AlertController.h>

#include <NorvAnalytic/MainQueue.h>

#include "mainqueue/MainQueueCheck.h"

namespace NorvAnalytic {

std::shared_ptr<AlertController> AlertController::alertControllerWithTitle(
    Text title, Text message, AlertControllerStyle style) {
    return std::shared_ptr<AlertController>(
        new AlertController(std::move(title), std::move(message), style));
}

AlertController::AlertController(Text title, Text message, AlertControllerStyle style)
    : title_(std::move(title)), message_(std::move(message)), style_(style) {}

void AlertController::addAction(std::shared_ptr<AlertAction> action) {
    actions_.push_back(std::move(action));
}

void AlertController::tapActionAtIndex(std::size_t index) {
    MainQueue::main().sync([this, index] {
        assertOnMainQueue();
        if (index >= actions_.size()) {
            return;
        }
        // Held here so that a handler replacing the alert cannot free the action it runs in.
        const std::shared_ptr<AlertAction> action = actions_[index];
        // Dismissed first, as the platform does: the handler may already show the next alert.
        setOnScreen(false);
        if (action->handler_) {
            action->handler_(*action);
        }
    });
}

}  // namespace NorvAnalytic
