#pragma once

#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/ViewController.h>

#include <memory>
#include <mutex>
#include <vector>

namespace NorvAnalytic::Testing {

// A screen of a pretend host UI: a plain controller, or a navigation controller with a stack.
// Presenting an alert records it, marks it on screen and puts a stand-in controller for it in
// the presented slot, so the top-controller walk ends at the alert while it is shown; once the
// alert is off screen (a tap), the slot reads empty again, as after a dismissal.
class TestViewController : public ViewController {
public:
    static std::shared_ptr<TestViewController> plain();
    static std::shared_ptr<TestViewController> navigation(
        std::vector<std::shared_ptr<ViewController>> stack);

    std::shared_ptr<ViewController> presentedViewController() const override;
    bool isNavigationController() const override;
    std::vector<std::shared_ptr<ViewController>> viewControllers() const override;
    void presentViewController(std::shared_ptr<AlertController> alert, bool animated,
                               std::function<void()> completion) override;

    // Makes this controller present another one modally (nullptr: presents nothing).
    void setPresentedViewController(std::shared_ptr<ViewController> controller);
    void setViewControllers(std::vector<std::shared_ptr<ViewController>> stack);

    // Every alert presented from this controller, oldest first.
    std::vector<std::shared_ptr<AlertController>> presentedAlerts() const;
    // The alert this controller stands in for, when it is an alert's stand-in.
    std::shared_ptr<AlertController> alert() const { return alert_; }

    explicit TestViewController(bool isNavigation,
                                std::shared_ptr<AlertController> alert = nullptr);

private:
    const bool isNavigation_;
    const std::shared_ptr<AlertController> alert_;
    mutable std::mutex mutex_;
    std::shared_ptr<ViewController> presented_;
    std::vector<std::shared_ptr<ViewController>> stack_;
    std::vector<std::shared_ptr<AlertController>> presentedAlerts_;
};

}  // namespace NorvAnalytic::Testing
