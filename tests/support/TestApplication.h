#pragma once

#include <NorvAnalytic/Application.h>
#include <NorvAnalytic/URL.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace NorvAnalytic::Testing {

// A pretend host application: its key window is whatever the test sets, canOpenURL answers
// what the test said for the URL's scheme (false otherwise), and openURL records the URL.
// The SDK uses it on the main queue, and tests set and read it around syncs with that queue.
class TestApplication : public Application {
public:
    std::shared_ptr<Window> keyWindow() const override { return keyWindow_; }
    bool canOpenURL(const URL& url) override { return canOpenByScheme_[url.scheme()]; }
    bool openURL(const URL& url) override {
        openedURLs_.push_back(url.absoluteString());
        return true;
    }

    void setKeyWindow(std::shared_ptr<Window> window) { keyWindow_ = std::move(window); }
    // The scheme is read as a URL reads it, so case does not matter.
    void setCanOpenURL(const std::string& scheme, bool canOpen) {
        canOpenByScheme_[URL::URLWithString(scheme + "://")->scheme()] = canOpen;
    }
    std::vector<std::string> openedURLs() const { return openedURLs_; }

private:
    std::shared_ptr<Window> keyWindow_;
    std::map<std::string, bool> canOpenByScheme_;
    std::vector<std::string> openedURLs_;
};

}  // namespace NorvAnalytic::Testing
