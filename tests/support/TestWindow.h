#pragma once

#include <NorvAnalytic/Window.h>

#include <memory>

namespace NorvAnalytic::Testing {

// A window of a pretend host UI, showing the root controller it was made with.
class TestWindow : public Window {
public:
    explicit TestWindow(std::shared_ptr<ViewController> root) : root_(std::move(root)) {}
    std::shared_ptr<ViewController> rootViewController() const override { return root_; }

private:
    const std::shared_ptr<ViewController> root_;
};

}  // namespace NorvAnalytic::Testing
