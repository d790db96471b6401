#pragma once

#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/ViewController.h>

#include <memory>
#include <mutex>
#include <vector>

namespace NorvAnalytic::Testing {

// A screen of a pretend host UI: a plain controller, or a navigation controller with a stack.
// Presenting an alert records it and marks it on screen.
class TestViewController : public ViewController {
public:
    static std::shared_ptr<TestViewController> plain() {
        return std::make_shared<TestViewController>(false);
    }
    static std::shared_ptr<TestViewController> navigation(
        std::vector<std::shared_ptr<ViewController>> stack) {
        return std::make_shared<TestViewController>(true, std::move(stack));
    }
    explicit TestViewController(bool isNavigation,
                                std::vector<std::shared_ptr<ViewController>> stack = {})
        : isNavigation_(isNavigation), stack_(std::move(stack)) {}

    std::shared_ptr<ViewController> presentedViewController() const override {
        std::lock_guard lock(mutex_);
        // While an alert is on screen a stand-in fills the presented slot, so the walk to the
        // top controller ends beyond this one; a tap takes the alert, and the stand-in, away.
        if (!presentedAlerts_.empty() && presentedAlerts_.back()->isOnScreen()) {
            return plain();
        }
        return presented_;
    }
    bool isNavigationController() const override { return isNavigation_; }
    std::vector<std::shared_ptr<ViewController>> viewControllers() const override { return stack_; }
    void presentViewController(std::shared_ptr<AlertController> alert, bool,
                               std::function<void()> completion) override {
        alert->setOnScreen(true);
        {
            std::lock_guard lock(mutex_);
            presentedAlerts_.push_back(std::move(alert));
        }
        if (completion) {
            completion();
        }
    }

    // Makes this controller present another one modally (nullptr: presents nothing).
    void setPresentedViewController(std::shared_ptr<ViewController> controller) {
        std::lock_guard lock(mutex_);
        presented_ = std::move(controller);
    }
    // Every alert presented from this controller, oldest first.
    std::vector<std::shared_ptr<AlertController>> presentedAlerts() const {
        std::lock_guard lock(mutex_);
        return presentedAlerts_;
    }

private:
    const bool isNavigation_;
    const std::vector<std::shared_ptr<ViewController>> stack_;
    mutable std::mutex mutex_;
    std::shared_ptr<ViewController> presented_;
    std::vector<std::shared_ptr<AlertController>> presentedAlerts_;
};

}  // namespace NorvAnalytic::Testing
