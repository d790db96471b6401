#pragma once

#include <NorvAnalytic/Application.h>
#include <NorvAnalytic/URL.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace NorvAnalytic {

// What the desktop answered, by scheme, to "can a handler open this?". Asking it (xdg-mime)
// takes up to seconds, which a UI thread never waits for: questions go to a thread of ours,
// which ends once none is left, and a scheme not answered yet reads as false. Compiled into
// the UI adapters, whose GUI threads ask.
class SchemeHandlerAnswers {
public:
    // desktop: the SDK's default application; threadName: "norv-…", as startSdkThread wants.
    SchemeHandlerAnswers(std::shared_ptr<Application> desktop, const char* threadName);
    // Waits for the question being asked, which has its own time limit.
    ~SchemeHandlerAnswers();
    SchemeHandlerAnswers(const SchemeHandlerAnswers&) = delete;
    SchemeHandlerAnswers& operator=(const SchemeHandlerAnswers&) = delete;

    // The answer for url's scheme; false, and the question asked, when there is none yet.
    bool canOpen(const URL& url);
    // Asks about url's scheme ahead of the first canOpen.
    void prefetch(const URL& url);

private:
    void askQueued();

    std::shared_ptr<Application> desktop_;
    const char* threadName_;
    std::mutex mutex_;
    // By scheme; nullopt while the question is on its way.
    std::map<std::string, std::optional<bool>> answers_;
    std::deque<URL> questions_;
    std::thread thread_;
    bool asking_ = false;
};

}  // namespace NorvAnalytic
