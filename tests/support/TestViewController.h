#pragma once

#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/ViewController.h>

#include <memory>
#include <vector>

namespace NorvAnalytic::Testing {

// A screen of a pretend host UI: a plain controller, or a navigation controller with a stack.
// Presenting an alert records it and marks it on screen. The SDK uses it on the main queue,
// and tests look at it after a sync with that queue, so it needs no lock of its own.
class TestViewController : public ViewController {
public:
    using Stack = std::vector<std::shared_ptr<ViewController>>;
    using Alerts = std::vector<std::shared_ptr<AlertController>>;
    static std::shared_ptr<TestViewController> plain() {
        return std::make_shared<TestViewController>(false, Stack{});
    }
    static std::shared_ptr<TestViewController> navigation(Stack stack) {
        return std::make_shared<TestViewController>(true, std::move(stack));
    }
    TestViewController(bool isNavigation, Stack stack)
        : isNavigation_(isNavigation), stack_(std::move(stack)) {}

    // While an alert is on screen a stand-in fills the presented slot, so the walk to the top
    // controller ends beyond this one; a tap takes the alert, and the stand-in, away.
    std::shared_ptr<ViewController> presentedViewController() const override {
        const bool alertShown = !presentedAlerts_.empty() && presentedAlerts_.back()->isOnScreen();
        return alertShown ? plain() : presented_;
    }
    bool isNavigationController() const override { return isNavigation_; }
    Stack viewControllers() const override { return stack_; }
    void presentViewController(std::shared_ptr<AlertController> alert, bool,
                               std::function<void()> completion) override {
        alert->setOnScreen(true);
        presentedAlerts_.push_back(std::move(alert));
        if (completion) {
            completion();
        }
    }

    // Makes this controller present another one modally (nullptr: presents nothing).
    void setPresentedViewController(std::shared_ptr<ViewController> controller) {
        presented_ = std::move(controller);
    }
    // Every alert presented from this controller, oldest first.
    Alerts presentedAlerts() const { return presentedAlerts_; }

private:
    const bool isNavigation_;
    const Stack stack_;
    std::shared_ptr<ViewController> presented_;
    Alerts presentedAlerts_;
};

}  // namespace NorvAnalytic::Testing
