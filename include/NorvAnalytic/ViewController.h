#pragma once

#include <NorvAnalytic/Export.h>

#include <functional>
#include <memory>
#include <vector>

namespace NorvAnalytic {

class AlertController;

// A screen of the host's UI, as far as the update prompt needs one.
class NORVANALYTIC_EXPORT ViewController {
public:
    virtual ~ViewController() = default;
    // The controller this one presents modally, if any.
    virtual std::shared_ptr<ViewController> presentedViewController() const = 0;
    virtual bool isNavigationController() const = 0;
    // The navigation stack, bottom first (empty for other controllers).
    virtual std::vector<std::shared_ptr<ViewController>> viewControllers() const = 0;
    virtual void presentViewController(std::shared_ptr<AlertController> alert, bool animated,
                                       std::function<void()> completion) = 0;
};

}  // namespace NorvAnalytic
