#pragma once

#include <NorvAnalytic/Window.h>

#include <memory>
#include <mutex>

namespace NorvAnalytic::Testing {

// A window of a pretend host UI with a root controller that a test may swap.
class TestWindow : public Window {
public:
    explicit TestWindow(std::shared_ptr<ViewController> rootViewController = nullptr);

    std::shared_ptr<ViewController> rootViewController() const override;
    void setRootViewController(std::shared_ptr<ViewController> controller);

private:
    mutable std::mutex mutex_;
    std::shared_ptr<ViewController> root_;
};

}  // namespace NorvAnalytic::Testing
