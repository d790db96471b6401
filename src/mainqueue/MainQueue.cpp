#include <NorvAnalytic/MainQueue.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <exception>
#include <mutex>
#include <new>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "mainqueue/MainQueueCheck.h"
#include "mainqueue/MainQueueClock.h"
#include "mainqueue/RestingTimers.h"
#include "mainqueue/SteadyClock.h"
#include "platform/Diagnostics.h"
#include "platform/SdkThread.h"

namespace NorvAnalytic {

namespace {

thread_local bool runningOnMainQueue = false;

// Marks the thread as running a task of the queue for as long as it lives, whatever the task
// does; a task run inside another leaves the mark as it found it.
class TaskScope {
public:
    TaskScope() : outer_(std::exchange(runningOnMainQueue, true)) {}
    ~TaskScope() { runningOnMainQueue = outer_; }
    TaskScope(const TaskScope&) = delete;
    TaskScope& operator=(const TaskScope&) = delete;

private:
    bool outer_;
};

std::string whatOf(const std::exception_ptr& thrown) {
    try {
        std::rethrow_exception(thrown);
    } catch (const std::exception& exception) {
        return exception.what();
    } catch (...) {
        return "not a std::exception";
    }
}

// The host's executor refused a hand-over: tried again after this, twice as long each time.
constexpr std::chrono::milliseconds kFirstExecutorRetry{10};
constexpr std::chrono::milliseconds kLongestExecutorRetry{1000};

}  // namespace

// The tasks wait here until they run, one at a time, in order. Without an executor one SDK
// thread (norv-main) runs them; with one, that thread hands the executor a drain, which runs
// the waiting tasks on the host's thread. The tasks themselves never leave this queue, so a
// change of executor cannot put two of them on two threads at once, and a drain left behind on
// an old executor finds nothing to do. Due timers become tasks, so a timer's action and an
// answer never run at the same time.
class MainQueueEngine {
public:
    using Task = MainQueue::Task;
    using Executor = MainQueue::Executor;
    class QueueTimer;

    MainQueueEngine() : clock_(std::make_shared<SteadyClock>()) {}

    void lockForFork() { mutex_.lock(); }
    void unlockAfterFork() { mutex_.unlock(); }
    // In the child after fork(): the thread is the parent's, and so are the tasks queued for
    // it (answers to the parent's events) and the task the parent runs now. The timers stay;
    // the child's first task starts a thread of its own.
    void afterForkInChild() {
        static_cast<void>(new std::deque<Task>(std::move(tasks_)));
        tasks_.clear();
        running_ = false;
        drainPending_ = false;
        abandonParentsThread(thread_);
        new (&wake_) std::condition_variable;
        mutex_.unlock();
    }

    void async(Task task) {
        bool wake = false;
        {
            std::unique_lock lock(mutex_);
            if (stopping_ && !executor_) {
                // Nothing will ever run it: dropped here, unlocked, so that a sync() waiting
                // for it ends.
                lock.unlock();
                task = nullptr;
                return;
            }
            tasks_.push_back(std::move(task));
            startThreadLocked();
            wake = !executor_ || !drainPending_;
        }
        if (wake) {
            wake_.notify_one();
        }
    }

    std::shared_ptr<Timer> schedule(std::chrono::duration<double> interval, bool repeats,
                                    bool rests, std::function<void()> action);

    void setExecutor(Executor executor, std::thread::id executorThread) {
        {
            std::lock_guard lock(mutex_);
            executorThread_.store(executor ? executorThread : std::thread::id());
            executor_ = std::move(executor);
            ++executorGeneration_;
            drainPending_ = false;
            executorFailing_ = false;
            retryDelay_ = kFirstExecutorRetry;
            if (!tasks_.empty()) {
                startThreadLocked();
            }
        }
        wake_.notify_one();
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
        std::deque<Task> unrun;
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            if (!executor_) {
                unrun.swap(tasks_);
            }
        }
        wake_.notify_one();
        if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
            thread_.join();
        }
    }

    std::uint64_t restingEpoch() {
        std::lock_guard lock(mutex_);
        return restingEpoch_;
    }

    void rest(std::uint64_t epoch);

    void wakeResting() {
        {
            std::lock_guard lock(mutex_);
            // Counted even when nothing rests: a tick that is looking for work now must not
            // rest the timers after it.
            ++restingEpoch_;
            if (!anyResting_.load(std::memory_order_relaxed)) {
                return;
            }
            const auto now = clock_->now();
            for (Entry& entry : entries_) {
                if (entry.resting) {
                    entry.resting = false;
                    catchUp(entry, now);
                }
            }
            anyResting_.store(false, std::memory_order_relaxed);
        }
        wake_.notify_one();
    }

    void setTaskObserver(void (*observer)()) { taskObserver_.store(observer); }

    void observeTask() noexcept {
        if (auto* observer = taskObserver_.load()) {
            try {
                observer();
            } catch (...) {
            }
        }
    }

private:
    struct Entry {
        std::shared_ptr<QueueTimer> timer;
        Clock::time_point fireDate;
        bool resting = false;
    };

    void startThreadLocked() {
        if (!thread_.joinable() && !stopping_) {
            thread_ = startSdkThread("norv-main", [this] { run(); });
        }
    }

    void collectDueTimersLocked();
    static void catchUp(Entry& entry, Clock::time_point now);

    // Runs one task as a task of the queue: what it throws is said once and goes no further.
    void runTask(Task& task) noexcept {
        const TaskScope scope;
        try {
            task();
        } catch (...) {
            Diagnostics::report(DiagnosticLevel::Error,
                                "A task on the main queue threw (" +
                                    whatOf(std::current_exception()) +
                                    "); the queue goes on with the next task.");
        }
        observeTask();
    }

    // Pops the next task and runs it, unlocked; destroyed before the lock is taken again,
    // because what it holds (a record's flush ticket) takes locks of its own when it goes.
    void runNextUnlocked(std::unique_lock<std::mutex>& lock) {
        running_ = true;
        {
            Task task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            runTask(task);
        }
        lock.lock();
        running_ = false;
    }

    // The thread that runs an executor's task is the main queue's thread from then on, unless
    // another executor has been installed since the drain was handed over.
    void noteExecutorThreadLocked(std::uint64_t generation) {
        if (generation == executorGeneration_ &&
            executorThread_.load() != std::this_thread::get_id()) {
            executorThread_.store(std::this_thread::get_id());
        }
    }

    // Hands the executor a drain, unlocked. What it threw is said once per failing stretch:
    // the tasks stay here and the hand-over is tried again later.
    void handOver(std::unique_lock<std::mutex>& lock, const Executor& executor,
                  std::uint64_t generation) {
        lock.unlock();
        std::exception_ptr thrown;
        try {
            executor([this, generation] { drain(generation); });
        } catch (...) {
            thrown = std::current_exception();
        }
        lock.lock();
        if (!thrown || generation != executorGeneration_) {
            return;
        }
        drainPending_ = false;
        retryAt_ = std::chrono::steady_clock::now() + retryDelay_;
        retryDelay_ = std::min(retryDelay_ * 2, kLongestExecutorRetry);
        if (!std::exchange(executorFailing_, true)) {
            lock.unlock();
            Diagnostics::report(DiagnosticLevel::Error,
                                "The host's executor threw (" + whatOf(thrown) +
                                    ") when handed the main queue's tasks; they wait and are "
                                    "handed over again.");
            lock.lock();
        }
    }

    // On the host's thread: the tasks that waited when it began; norv-main hands over another
    // drain for the rest, so that a busy SDK never keeps the host's loop from its own work, and
    // an executor that runs what it is given at once never nests one drain in another.
    void drain(std::uint64_t generation) {
        std::unique_lock lock(mutex_);
        if (generation != executorGeneration_) {
            return;
        }
        noteExecutorThreadLocked(generation);
        executorFailing_ = false;
        retryDelay_ = kFirstExecutorRetry;
        for (std::size_t budget = tasks_.size();
             budget > 0 && !tasks_.empty() && !running_ && generation == executorGeneration_;
             --budget) {
            runNextUnlocked(lock);
        }
        if (generation != executorGeneration_ || running_) {
            // The queue changed hands meanwhile, or norv-main still ran a task when this drain
            // came: whoever runs the queue now goes on once this drain is over.
            if (generation == executorGeneration_) {
                drainPending_ = false;
            }
            lock.unlock();
            wake_.notify_one();
            return;
        }
        drainPending_ = false;
        if (!tasks_.empty()) {
            lock.unlock();
            wake_.notify_one();
        }
    }

    void run() {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            collectDueTimersLocked();
            // How long to sleep: until the next timer that does not rest, or the next try of a
            // host's executor that threw. The steady clock and the queue's clock agree on
            // durations, not on epochs.
            std::optional<Clock::duration> sleep;
            if (!tasks_.empty() && !running_) {
                if (!executor_) {
                    runNextUnlocked(lock);
                    continue;
                }
                if (!drainPending_) {
                    const auto untilRetry = retryAt_ - std::chrono::steady_clock::now();
                    if (untilRetry <= Clock::duration::zero()) {
                        drainPending_ = true;
                        const Executor executor = executor_;
                        handOver(lock, executor, executorGeneration_);
                        continue;
                    }
                    sleep = untilRetry;
                }
            }
            if (!clock_->isManual()) {
                const auto now = clock_->now();
                for (const Entry& entry : entries_) {
                    if (!entry.resting && (!sleep || entry.fireDate - now < *sleep)) {
                        sleep = entry.fireDate - now;
                    }
                }
            }
            if (sleep) {
                wake_.wait_for(lock, *sleep);
            } else {
                wake_.wait(lock);
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
    // A task runs now, on norv-main or on the host's thread.
    bool running_ = false;
    // A drain of the current executor is on its way to the host's thread.
    bool drainPending_ = false;
    bool executorFailing_ = false;
    std::chrono::milliseconds retryDelay_ = kFirstExecutorRetry;
    std::chrono::steady_clock::time_point retryAt_{};
    std::uint64_t restingEpoch_ = 0;
    std::atomic<bool> anyResting_{false};
    std::atomic<void (*)()> taskObserver_{nullptr};
    std::shared_ptr<Clock> clock_;
    std::thread thread_;
    bool stopping_ = false;

    friend class QueueTimer;
};

class MainQueueEngine::QueueTimer : public Timer,
                                    public std::enable_shared_from_this<QueueTimer> {
public:
    QueueTimer(MainQueueEngine& queue, std::chrono::duration<double> interval, bool repeats,
               bool rests, std::function<void()> action)
        : queue_(queue),
          interval_(interval),
          repeats_(repeats),
          rests_(rests),
          action_(std::move(action)) {}

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
    bool rests() const { return rests_; }

private:
    MainQueueEngine& queue_;
    std::chrono::duration<double> interval_;
    bool repeats_;
    bool rests_;
    std::function<void()> action_;
    bool valid_ = true;
};

std::shared_ptr<Timer> MainQueueEngine::schedule(std::chrono::duration<double> interval,
                                                 bool repeats, bool rests,
                                                 std::function<void()> action) {
    // Like a run-loop timer, an interval of zero or less is taken as the smallest interval.
    interval = std::max(interval, std::chrono::duration<double>(0.0001));
    auto timer = std::make_shared<QueueTimer>(*this, interval, repeats, rests, std::move(action));
    {
        std::lock_guard lock(mutex_);
        entries_.push_back(Entry{timer, clock_->now() + timer->interval()});
        startThreadLocked();
    }
    wake_.notify_one();
    return timer;
}

void MainQueueEngine::rest(std::uint64_t epoch) {
    std::lock_guard lock(mutex_);
    if (epoch != restingEpoch_) {
        return;
    }
    for (Entry& entry : entries_) {
        if (entry.timer->rests()) {
            entry.resting = true;
            anyResting_.store(true, std::memory_order_relaxed);
        }
    }
}

// A late repeating timer fires once and keeps its rhythm, as a run-loop timer does.
void MainQueueEngine::catchUp(Entry& entry, Clock::time_point now) {
    if (entry.fireDate <= now) {
        const auto interval = entry.timer->interval();
        entry.fireDate += interval * ((now - entry.fireDate) / interval + 1);
    }
}

void MainQueueEngine::collectDueTimersLocked() {
    const auto now = clock_->now();
    std::vector<Entry> due;
    for (auto& entry : entries_) {
        if (!entry.resting && entry.fireDate <= now) {
            due.push_back(entry);
        }
    }
    std::stable_sort(due.begin(), due.end(),
                     [](const Entry& a, const Entry& b) { return a.fireDate < b.fireDate; });
    for (auto& fired : due) {
        auto timer = fired.timer;
        tasks_.push_back([timer] { timer->fire(); });
    }
    std::erase_if(entries_, [&](Entry& entry) {
        if (entry.resting || entry.fireDate > now) {
            return false;
        }
        if (!entry.timer->repeats()) {
            return true;
        }
        catchUp(entry, now);
        return false;
    });
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

// What a sync() caller waits for: the task's end, or its destruction unrun.
struct SyncCall {
    std::mutex mutex;
    std::condition_variable ended;
    bool done = false;
    std::exception_ptr thrown;

    void end() {
        {
            std::lock_guard lock(mutex);
            done = true;
        }
        ended.notify_all();
    }
};

// Travels with the task: ends the call when the last copy of the task goes, run or not.
struct SyncEnd {
    std::shared_ptr<SyncCall> call;
    explicit SyncEnd(std::shared_ptr<SyncCall> waited) : call(std::move(waited)) {}
    ~SyncEnd() { call->end(); }
    SyncEnd(const SyncEnd&) = delete;
    SyncEnd& operator=(const SyncEnd&) = delete;
};

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
        const TaskScope scope;
        task();
        engine().observeTask();
        return;
    }
    auto call = std::make_shared<SyncCall>();
    auto end = std::make_shared<SyncEnd>(call);
    engine().async([&task, end] {
        try {
            task();
        } catch (...) {
            end->call->thrown = std::current_exception();
        }
    });
    end.reset();
    std::unique_lock lock(call->mutex);
    call->ended.wait(lock, [&] { return call->done; });
    // What the task threw is the caller's, as if it had run here.
    if (call->thrown) {
        std::rethrow_exception(call->thrown);
    }
}

std::shared_ptr<Timer> MainQueue::scheduledTimer(std::chrono::duration<double> interval,
                                                 bool repeats, std::function<void()> action) {
    return engine().schedule(interval, repeats, false, std::move(action));
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

std::shared_ptr<Timer> scheduledRestingTimer(std::chrono::duration<double> interval,
                                             std::function<void()> action) {
    return engine().schedule(interval, true, true, std::move(action));
}

std::uint64_t restingTimersEpoch() { return engine().restingEpoch(); }

void restTimers(std::uint64_t epoch) { engine().rest(epoch); }

void wakeRestingTimers() { engine().wakeResting(); }

void setMainQueueTaskObserver(void (*observer)()) { engine().setTaskObserver(observer); }

}  // namespace NorvAnalytic
