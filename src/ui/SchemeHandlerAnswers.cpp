#include "ui/SchemeHandlerAnswers.h"

#include <system_error>

#include "platform/SdkThread.h"

namespace NorvAnalytic {

SchemeHandlerAnswers::SchemeHandlerAnswers(std::shared_ptr<Application> desktop,
                                           const char* threadName)
    : desktop_(std::move(desktop)), threadName_(threadName) {}

SchemeHandlerAnswers::~SchemeHandlerAnswers() {
    {
        const std::lock_guard lock(mutex_);
        questions_.clear();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

void SchemeHandlerAnswers::prefetch(const URL& url) {
    const std::lock_guard lock(mutex_);
    if (!desktop_ || answers_.contains(url.scheme())) {
        return;
    }
    answers_.emplace(url.scheme(), std::nullopt);
    questions_.push_back(url);
    if (asking_) {
        return;
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    try {
        thread_ = startSdkThread(threadName_, [this] { askQueued(); });
        asking_ = true;
    } catch (const std::system_error&) {
        // No thread to be had: the question is asked again with the next prefetch.
        answers_.erase(url.scheme());
        questions_.pop_back();
    }
}

// On our thread until no question is left; nothing the desktop throws leaves it.
void SchemeHandlerAnswers::askQueued() {
    std::unique_lock lock(mutex_);
    while (!questions_.empty()) {
        const URL url = questions_.front();
        questions_.pop_front();
        lock.unlock();
        bool answer = false;
        try {
            answer = desktop_->canOpenURL(url);
        } catch (...) {
        }
        lock.lock();
        answers_[url.scheme()] = answer;
    }
    asking_ = false;
}

bool SchemeHandlerAnswers::canOpen(const URL& url) {
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = answers_.find(url.scheme()); found != answers_.end()) {
            return found->second.value_or(false);
        }
    }
    prefetch(url);
    return false;
}

}  // namespace NorvAnalytic
