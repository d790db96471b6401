#pragma once

#include <NorvAnalytic/Application.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/TestViewController.h"
#include "support/TestWindow.h"

namespace NorvAnalytic::Testing {

// A pretend host application: its key window is whatever the test sets, canOpenURL answers
// what the test said for that URL or its scheme (false otherwise), and openURL records the URL.
class TestApplication : public Application {
public:
    std::shared_ptr<Window> keyWindow() const override;
    bool canOpenURL(const URL& url) override;
    bool openURL(const URL& url) override;

    void setKeyWindow(std::shared_ptr<Window> window);
    // urlOrScheme is a whole URL text (matched exactly) or a scheme (matched ignoring case);
    // a whole URL wins over its scheme.
    void setCanOpenURL(const std::string& urlOrScheme, bool canOpen);

    // Every URL handed to openURL, oldest first, as given.
    std::vector<std::string> openedURLs() const;

private:
    mutable std::mutex mutex_;
    std::shared_ptr<Window> keyWindow_;
    std::map<std::string, bool> canOpenByURL_;
    std::map<std::string, bool> canOpenByScheme_;
    std::vector<std::string> openedURLs_;
};

}  // namespace NorvAnalytic::Testing
