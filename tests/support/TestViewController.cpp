#include "support/TestViewController.h"

namespace NorvAnalytic::Testing {

std::shared_ptr<TestViewController> TestViewController::plain() {
    return std::make_shared<TestViewController>(false);
}

std::shared_ptr<TestViewController> TestViewController::navigation(
    std::vector<std::shared_ptr<ViewController>> stack) {
    auto controller = std::make_shared<TestViewController>(true);
    controller->setViewControllers(std::move(stack));
    return controller;
}

TestViewController::TestViewController(bool isNavigation, std::shared_ptr<AlertController> alert)
    : isNavigation_(isNavigation), alert_(std::move(alert)) {}

std::shared_ptr<ViewController> TestViewController::presentedViewController() const {
    std::lock_guard lock(mutex_);
    auto standIn = std::dynamic_pointer_cast<TestViewController>(presented_);
    if (standIn && standIn->alert() && !standIn->alert()->isOnScreen()) {
        return nullptr;
    }
    return presented_;
}

bool TestViewController::isNavigationController() const { return isNavigation_; }

std::vector<std::shared_ptr<ViewController>> TestViewController::viewControllers() const {
    std::lock_guard lock(mutex_);
    return stack_;
}

void TestViewController::presentViewController(std::shared_ptr<AlertController> alert, bool,
                                               std::function<void()> completion) {
    alert->setOnScreen(true);
    {
        std::lock_guard lock(mutex_);
        presentedAlerts_.push_back(alert);
        presented_ = std::make_shared<TestViewController>(false, std::move(alert));
    }
    if (completion) {
        completion();
    }
}

void TestViewController::setPresentedViewController(std::shared_ptr<ViewController> controller) {
    std::lock_guard lock(mutex_);
    presented_ = std::move(controller);
}

void TestViewController::setViewControllers(std::vector<std::shared_ptr<ViewController>> stack) {
    std::lock_guard lock(mutex_);
    stack_ = std::move(stack);
}

std::vector<std::shared_ptr<AlertController>> TestViewController::presentedAlerts() const {
    std::lock_guard lock(mutex_);
    return presentedAlerts_;
}

}  // namespace NorvAnalytic::Testing
