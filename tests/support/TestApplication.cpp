#include "support/TestApplication.h"

#include <algorithm>
#include <cctype>

namespace NorvAnalytic::Testing {

namespace {

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

}  // namespace

std::shared_ptr<Window> TestApplication::keyWindow() const {
    std::lock_guard lock(mutex_);
    return keyWindow_;
}

bool TestApplication::canOpenURL(const URL& url) {
    std::lock_guard lock(mutex_);
    if (auto byURL = canOpenByURL_.find(url.absoluteString()); byURL != canOpenByURL_.end()) {
        return byURL->second;
    }
    auto byScheme = canOpenByScheme_.find(lowercased(url.scheme()));
    return byScheme != canOpenByScheme_.end() && byScheme->second;
}

bool TestApplication::openURL(const URL& url) {
    std::lock_guard lock(mutex_);
    openedURLs_.push_back(url.absoluteString());
    return true;
}

void TestApplication::setKeyWindow(std::shared_ptr<Window> window) {
    std::lock_guard lock(mutex_);
    keyWindow_ = std::move(window);
}

void TestApplication::setCanOpenURL(const std::string& urlOrScheme, bool canOpen) {
    std::lock_guard lock(mutex_);
    if (urlOrScheme.find(':') != std::string::npos) {
        canOpenByURL_[urlOrScheme] = canOpen;
    } else {
        canOpenByScheme_[lowercased(urlOrScheme)] = canOpen;
    }
}

std::vector<std::string> TestApplication::openedURLs() const {
    std::lock_guard lock(mutex_);
    return openedURLs_;
}

}  // namespace NorvAnalytic::Testing
