#pragma once

#include <NorvAnalytic/Application.h>
#include <NorvAnalytic/URL.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace NorvAnalytic::Testing {

// A pretend host application: its key window is whatever the test sets, canOpenURL answers
// what the test said for the URL's scheme (false otherwise), and openURL records the URL.
class TestApplication : public Application {
public:
    std::shared_ptr<Window> keyWindow() const override {
        std::lock_guard lock(mutex_);
        return keyWindow_;
    }
    bool canOpenURL(const URL& url) override {
        std::lock_guard lock(mutex_);
        return canOpenByScheme_[url.scheme()];
    }
    bool openURL(const URL& url) override {
        std::lock_guard lock(mutex_);
        openedURLs_.push_back(url.absoluteString());
        return true;
    }

    void setKeyWindow(std::shared_ptr<Window> window) {
        std::lock_guard lock(mutex_);
        keyWindow_ = std::move(window);
    }
    // The scheme is read as a URL reads it, so case does not matter.
    void setCanOpenURL(const std::string& scheme, bool canOpen) {
        std::lock_guard lock(mutex_);
        canOpenByScheme_[URL::URLWithString(scheme + "://")->scheme()] = canOpen;
    }
    std::vector<std::string> openedURLs() const {
        std::lock_guard lock(mutex_);
        return openedURLs_;
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<Window> keyWindow_;
    std::map<std::string, bool> canOpenByScheme_;
    std::vector<std::string> openedURLs_;
};

}  // namespace NorvAnalytic::Testing
