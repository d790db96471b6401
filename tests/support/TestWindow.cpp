#include "support/TestWindow.h"

namespace NorvAnalytic::Testing {

TestWindow::TestWindow(std::shared_ptr<ViewController> rootViewController)
    : root_(std::move(rootViewController)) {}

std::shared_ptr<ViewController> TestWindow::rootViewController() const {
    std::lock_guard lock(mutex_);
    return root_;
}

void TestWindow::setRootViewController(std::shared_ptr<ViewController> controller) {
    std::lock_guard lock(mutex_);
    root_ = std::move(controller);
}

}  // namespace NorvAnalytic::Testing
