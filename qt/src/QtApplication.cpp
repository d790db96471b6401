#include "QtApplication.h"

#include <pthread.h>
#include <signal.h>

#include <QApplication>
#include <QDesktopServices>
#include <QUrl>
#include <functional>
#include <string_view>
#include <system_error>

#include "QtWindow.h"

namespace NorvAnalytic {

namespace {

constexpr std::string_view kManifestLinkPrefix = "itms-services://?action=download-manifest&url=";

// A thread of the SDK's in the host's process: named as ours, and with the host's
// asynchronous signals blocked, so that a host's sigwait never loses one to it.
std::thread startQueryThread(std::function<void()> body) {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
        sigdelset(&blocked, fault);
    }
    sigset_t callers;
    pthread_sigmask(SIG_SETMASK, &blocked, &callers);
    std::thread thread;
    try {
        thread = std::thread([body = std::move(body)] {
            pthread_setname_np(pthread_self(), "norv-qt-mime");
            body();
        });
    } catch (const std::system_error&) {
        // No question is asked; canOpenURL keeps answering false.
    }
    pthread_sigmask(SIG_SETMASK, &callers, nullptr);
    return thread;
}

}  // namespace

QtApplication::QtApplication(std::shared_ptr<Application> desktop) : desktop_(std::move(desktop)) {}

QtApplication::~QtApplication() {
    // The thread ends after the question it is asking, which has its own time limit.
    {
        const std::lock_guard lock(mutex_);
        questions_.clear();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

void QtApplication::prefetch(const URL& url) {
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
    thread_ = startQueryThread([this] { askQueued(); });
    asking_ = thread_.joinable();
}

// Runs on norv-qt-mime until no question is left; nothing thrown leaves it.
void QtApplication::askQueued() {
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

std::shared_ptr<Window> QtApplication::keyWindow() const {
    QWidget* active = QApplication::activeWindow();
    return active ? std::make_shared<QtWindow>(active) : nullptr;
}

bool QtApplication::canOpenURL(const URL& url) {
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = answers_.find(url.scheme()); found != answers_.end()) {
            return found->second.value_or(false);
        }
    }
    prefetch(url);
    return false;
}

bool QtApplication::openURL(const URL& url) {
    std::string_view link = url.absoluteString();
    // No desktop handles this scheme, but the manifest it points at is an ordinary address.
    if (link.starts_with(kManifestLinkPrefix)) {
        link.remove_prefix(kManifestLinkPrefix.size());
    }
    const QUrl target(QString::fromUtf8(link.data(), static_cast<qsizetype>(link.size())),
                      QUrl::StrictMode);
    return target.isValid() && !target.scheme().isEmpty() && QDesktopServices::openUrl(target);
}

}  // namespace NorvAnalytic
