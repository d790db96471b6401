#pragma once

#include <NorvAnalytic/Application.h>

#include <chrono>
#include <string>

namespace NorvAnalytic {

// The application of a host without a UI of its own: there is no window to present an alert
// in, and URLs go to the desktop's handler for their scheme.
class HeadlessApplication final : public Application {
public:
    // The two programs are looked up on PATH unless given with a slash; tests pass scripts.
    explicit HeadlessApplication(std::string mimeQueryProgram = "xdg-mime",
                                 std::string openProgram = "xdg-open",
                                 std::chrono::milliseconds queryTimeout = std::chrono::seconds(2));

    std::shared_ptr<Window> keyWindow() const override;
    // True when the desktop names a handler for the URL's scheme.
    bool canOpenURL(const URL& url) override;
    // Hands the URL to the desktop's opener; true when that program could be started.
    bool openURL(const URL& url) override;

private:
    std::string mimeQueryProgram_;
    std::string openProgram_;
    std::chrono::milliseconds queryTimeout_;
};

}  // namespace NorvAnalytic
