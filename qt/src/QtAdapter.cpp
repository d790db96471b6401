#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/QtAdapter.h>
#include <NorvAnalytic/URL.h>

#include <QApplication>
#include <QPointer>
#include <QThread>
#include <deque>
#include <mutex>
#include <thread>

#include "QtApplication.h"

namespace NorvAnalytic {

namespace {

// What the main queue hands the GUI thread (drains of its own list of tasks) waits here, run
// by one event posted to an object of ours that is never destroyed. Qt drops the events still
// posted when the application goes away; the main queue then runs its tasks on its own thread,
// and the drains left here would find nothing to do.
struct EventLoop {
    std::mutex mutex;
    QObject* receiver = nullptr;
    QPointer<QCoreApplication> application;
    std::deque<MainQueue::Task> tasks;
};

EventLoop& eventLoop() {
    static auto* loop = new EventLoop;
    return *loop;
}

void runWaitingTasks() {
    auto& loop = eventLoop();
    std::unique_lock lock(loop.mutex);
    while (!loop.tasks.empty()) {
        MainQueue::Task task = std::move(loop.tasks.front());
        loop.tasks.pop_front();
        lock.unlock();
        task();
        lock.lock();
    }
}

void post(MainQueue::Task task) {
    auto& loop = eventLoop();
    std::unique_lock lock(loop.mutex);
    if (!loop.application) {
        lock.unlock();
        task();
        return;
    }
    loop.tasks.push_back(std::move(task));
    // One drain is on its way while the list is not empty.
    if (loop.tasks.size() == 1) {
        QMetaObject::invokeMethod(loop.receiver, runWaitingTasks, Qt::QueuedConnection);
    }
}

}  // namespace

bool QtAdapter::install() {
    auto* application = qobject_cast<QApplication*>(QCoreApplication::instance());
    if (application == nullptr) {
        qWarning("NorvAnalytic::QtAdapter::install(): no QApplication exists yet; nothing done");
        return false;
    }
    if (QThread::currentThread() != application->thread()) {
        qWarning("NorvAnalytic::QtAdapter::install(): call it on the GUI thread; nothing done");
        return false;
    }
    auto& loop = eventLoop();
    {
        std::lock_guard lock(loop.mutex);
        if (loop.application == application) {
            return true;
        }
        if (loop.receiver == nullptr) {
            loop.receiver = new QObject;
        }
        loop.application = application;
    }
    QObject::connect(
        application, &QObject::destroyed, loop.receiver,
        [] {
            std::deque<MainQueue::Task> left;
            {
                std::lock_guard lock(eventLoop().mutex);
                eventLoop().application = nullptr;
                left.swap(eventLoop().tasks);
            }
            MainQueue::main().setExecutor(nullptr);
            Platform::setApplication(nullptr);
        },
        Qt::DirectConnection);
    auto qtApplication = std::make_shared<QtApplication>(Platform::application());
    // The store app's link, which the update alert asks about: answered before it is needed.
    if (const auto storeApp = URL::URLWithString("lindenStoreQRWPT://")) {
        qtApplication->prefetch(*storeApp);
    }
    Platform::setApplication(qtApplication);
    MainQueue::main().setExecutor(post, std::this_thread::get_id());
    return true;
}

}  // namespace NorvAnalytic
