#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/QtAdapter.h>

#include <QApplication>
#include <QPointer>
#include <QThread>
#include <mutex>
#include <thread>

#include "QtApplication.h"

namespace NorvAnalytic {

namespace {

// Where the main queue's tasks are posted: an object of our own on the GUI thread, never
// destroyed, so that a task posted while the application goes away has a receiver. Once the
// application is gone, tasks run on the SDK's thread that hands them over, as without a host.
struct EventLoop {
    std::mutex mutex;
    QObject* receiver = nullptr;
    QPointer<QCoreApplication> application;
};

EventLoop& eventLoop() {
    static auto* loop = new EventLoop;
    return *loop;
}

void post(MainQueue::Task task) {
    auto& loop = eventLoop();
    std::unique_lock lock(loop.mutex);
    if (!loop.application) {
        lock.unlock();
        task();
        return;
    }
    QMetaObject::invokeMethod(loop.receiver, std::move(task), Qt::QueuedConnection);
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
            {
                std::lock_guard lock(eventLoop().mutex);
                eventLoop().application = nullptr;
            }
            MainQueue::main().setExecutor(nullptr);
            Platform::setApplication(nullptr);
        },
        Qt::DirectConnection);
    Platform::setApplication(std::make_shared<QtApplication>(Platform::application()));
    MainQueue::main().setExecutor(post, std::this_thread::get_id());
    return true;
}

}  // namespace NorvAnalytic
