#pragma once

#include <NorvAnalytic/Application.h>

#include <chrono>
#include <memory>
#include <thread>

namespace NorvAnalytic::Testing {

// A desktop that takes its time to name a handler, as xdg-mime may; it knows only "x-test".
// Header-only: the adapters' suites link the SDK alone.
class SlowDesktop final : public Application {
public:
    std::shared_ptr<Window> keyWindow() const override { return nullptr; }
    bool canOpenURL(const URL& url) override {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return url.scheme() == "x-test";
    }
    bool openURL(const URL&) override { return false; }
};

}  // namespace NorvAnalytic::Testing
