#include <NorvAnalytic/MainQueue.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <future>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include <pthread.h>

#include "mainqueue/MainQueueCheck.h"
#include "mainqueue/MainQueueClock.h"
#include "mainqueue/SteadyClock.h"
#include "platform/SdkThread.h"

namespace NorvAnalytic {

namespace {

thread_local bool runningOnMainQueue = false;

void runAsMainQueueTask(const MainQueue::Task& task) {
    runningOnMainQueue = true;
    task();
    runningOnMainQueue = false;
}

}  // namespace

// One SDK-owned thread waits for tasks and for the next timer. Due timers become tasks, so a
// timer's action and an answer never run at the same time. With a host executor the thread
// only hands ready tasks over.
class MainQueueEngine {
public:
    using Task = MainQueue::Task;
    using Executor = MainQueue::Executor;
    class QueueTimer;

    MainQueueEngine() : clock_(std::make_shared<SteadyClock>()) {}

    void lockForFork() { mutex_.lock(); }
    void unlockAfterFork() { mutex_.unlock(); }
    // In the child after fork(): the thread is the parent's, and so are the tasks queued for
    // it (answers to the parent's events). The timers stay; the child's first task starts a
    // thread of its own.
    void afterForkInChild() {
        static_cast<void>(new std::deque<Task>(std::move(tasks_)));
        tasks_.clear();
        abandonParentsThread(thread_);
        new (&wake_) std::condition_variable;
        mutex_.unlock();
    }

    void async(Task task) {
        {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
            startThreadLocked();
        }
        wake_.notify_one();
    }

    std::shared_ptr<Timer> schedule(std::chrono::duration<double> interval, bool repeats,
                                    std::function<void()> action);

    void setExecutor(Executor executor, std::thread::id executorThread) {
        std::lock_guard lock(mutex_);
        executorThread_.store(executor ? executorThread : std::thread::id());
        executor_ = std::move(executor);
        ++executorGeneration_;
    }

    // The host thread that runs the executor's tasks; no thread without an executor.
    bool isExecutorThread() const {
        const std::thread::id thread = executorThread_.load();
        return thread != std::thread::id() && thread == std::this_thread::get_id();
    }

    void setClock(std::shared_ptr<Clock> clock) {
        {
            std::lock_guard lock(mutex_);
            clock_ = clock ? std::move(clock) : std::make_shared<SteadyClock>();
        }
        wake_.notify_one();
    }

    // Turns every due timer into a task, earliest first, before anything queued later.
    void clockDidAdvance() {
        {
            std::lock_guard lock(mutex_);
            collectDueTimersLocked();
            startThreadLocked();
        }
        wake_.notify_one();
    }

    void stop() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
            thread_.join();
        }
    }

private:
    struct Entry {
        std::shared_ptr<QueueTimer> timer;
        Clock::time_point fireDate;
    };

    void startThreadLocked() {
        if (!thread_.joinable() && !stopping_) {
            thread_ = startSdkThread("norv-main", [this] { run(); });
        }
    }

    void collectDueTimersLocked();

    // The thread that runs an executor's task is the main queue's thread from then on, unless
    // another executor has been installed since the task was handed over.
    void noteExecutorThread(std::uint64_t generation) {
        if (executorThread_.load() == std::this_thread::get_id()) {
            return;
        }
        std::lock_guard lock(mutex_);
        if (generation == executorGeneration_) {
            executorThread_.store(std::this_thread::get_id());
        }
    }

    void run() {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            collectDueTimersLocked();
            if (!tasks_.empty()) {
                Task task = std::move(tasks_.front());
                tasks_.pop_front();
                Executor executor = executor_;
                const std::uint64_t generation = executorGeneration_;
                lock.unlock();
                if (executor) {
                    executor([this, generation, task = std::move(task)] {
                        noteExecutorThread(generation);
                        runAsMainQueueTask(task);
                    });
                } else {
                    runAsMainQueueTask(task);
                }
                lock.lock();
                continue;
            }
            auto next = std::min_element(entries_.begin(), entries_.end(),
                                         [](const Entry& a, const Entry& b) {
                                             return a.fireDate < b.fireDate;
                                         });
            if (next == entries_.end() || clock_->isManual()) {
                wake_.wait(lock);
            } else {
                // The steady clock and the queue's clock agree on durations, not on epochs.
                auto delay = next->fireDate - clock_->now();
                wake_.wait_for(lock, delay);
            }
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> tasks_;
    std::vector<Entry> entries_;
    Executor executor_;
    std::atomic<std::thread::id> executorThread_;
    std::uint64_t executorGeneration_ = 0;
    std::shared_ptr<Clock> clock_;
    std::thread thread_;
    bool stopping_ = false;

    friend class QueueTimer;
};

class MainQueueEngine::QueueTimer : public Timer,
                                    public std::enable_shared_from_this<QueueTimer> {
public:
    QueueTimer(MainQueueEngine& queue, std::chrono::duration<double> interval, bool repeats,
               std::function<void()> action)
        : queue_(queue), interval_(interval), repeats_(repeats), action_(std::move(action)) {}

    void invalidate() override {
        std::lock_guard lock(queue_.mutex_);
        valid_ = false;
        std::erase_if(queue_.entries_,
                      [this](const Entry& entry) { return entry.timer.get() == this; });
    }

    bool isValid() const override {
        std::lock_guard lock(queue_.mutex_);
        return valid_;
    }

    void fire() {
        assertOnMainQueue();
        {
            std::lock_guard lock(queue_.mutex_);
            if (!valid_) {
                return;
            }
            // A one-shot timer is spent by firing, as a run-loop timer is.
            if (!repeats_) {
                valid_ = false;
            }
        }
        action_();
    }

    Clock::duration interval() const {
        return std::chrono::duration_cast<Clock::duration>(interval_);
    }
    bool repeats() const { return repeats_; }

private:
    MainQueueEngine& queue_;
    std::chrono::duration<double> interval_;
    bool repeats_;
    std::function<void()> action_;
    bool valid_ = true;
};

std::shared_ptr<Timer> MainQueueEngine::schedule(std::chrono::duration<double> interval,
                                                 bool repeats, std::function<void()> action) {
    // Like a run-loop timer, an interval of zero or less is taken as the smallest interval.
    interval = std::max(interval, std::chrono::duration<double>(0.0001));
    auto timer = std::make_shared<QueueTimer>(*this, interval, repeats, std::move(action));
    {
        std::lock_guard lock(mutex_);
        entries_.push_back(Entry{timer, clock_->now() + timer->interval()});
        startThreadLocked();
    }
    wake_.notify_one();
    return timer;
}

void MainQueueEngine::collectDueTimersLocked() {
    const auto now = clock_->now();
    std::vector<Entry> due;
    for (auto& entry : entries_) {
        if (entry.fireDate <= now) {
            due.push_back(entry);
        }
    }
    std::stable_sort(due.begin(), due.end(),
                     [](const Entry& a, const Entry& b) { return a.fireDate < b.fireDate; });
    for (auto& fired : due) {
        auto timer = fired.timer;
        tasks_.push_back([timer] { timer->fire(); });
    }
    for (auto it = entries_.begin(); it != entries_.end();) {
        if (it->fireDate > now) {
            ++it;
        } else if (it->timer->repeats()) {
            // A late timer fires once and keeps its rhythm, as a run-loop timer does.
            const auto interval = it->timer->interval();
            it->fireDate += interval * ((now - it->fireDate) / interval + 1);
            ++it;
        } else {
            it = entries_.erase(it);
        }
    }
}

namespace {

MainQueueEngine& engine() {
    // Never destroyed, like the queue itself; its thread is stopped at exit instead.
    static MainQueueEngine* queue = [] {
        pthread_atfork([] { engine().lockForFork(); }, [] { engine().unlockAfterFork(); },
                       [] { engine().afterForkInChild(); });
        return new MainQueueEngine;
    }();
    return *queue;
}

}  // namespace

MainQueue::MainQueue() {
    // Stop the thread before the process tears down what its tasks may use.
    static_cast<void>(std::atexit([] { engine().stop(); }));
}

MainQueue& MainQueue::main() {
    // Never destroyed: work still queued when the host returns from main must find it alive.
    static MainQueue* queue = new MainQueue;
    return *queue;
}

void MainQueue::async(Task task) { engine().async(std::move(task)); }

void MainQueue::sync(Task task) {
    if (isCurrent()) {
        task();
        return;
    }
    std::promise<void> done;
    auto finished = done.get_future();
    engine().async([&task, &done] {
        task();
        done.set_value();
    });
    finished.wait();
}

std::shared_ptr<Timer> MainQueue::scheduledTimer(std::chrono::duration<double> interval,
                                                 bool repeats, std::function<void()> action) {
    return engine().schedule(interval, repeats, std::move(action));
}

bool MainQueue::isCurrent() const { return runningOnMainQueue || engine().isExecutorThread(); }

void MainQueue::setExecutor(Executor executor) {
    engine().setExecutor(std::move(executor), std::thread::id());
}

void MainQueue::setExecutor(Executor executor, std::thread::id executorThread) {
    engine().setExecutor(std::move(executor), executorThread);
}

void setMainQueueClock(std::shared_ptr<Clock> clock) { engine().setClock(std::move(clock)); }

void mainQueueClockDidAdvance() { engine().clockDidAdvance(); }

}  // namespace NorvAnalytic
