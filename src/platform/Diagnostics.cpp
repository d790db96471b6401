#include "platform/Diagnostics.h"

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/SdkThread.h"

namespace NorvAnalytic {

namespace {

using Sink = std::shared_ptr<const Platform::DiagnosticsSink>;

struct Line {
    DiagnosticLevel level;
    std::string message;
};

thread_local bool onSinkThread = false;

// Calls the host's sink; nothing it throws goes further.
void deliver(const Sink& sink, const Line& line) noexcept {
    if (!sink) {
        return;
    }
    try {
        (*sink)(line.level, line.message);
    } catch (...) {
    }
}

// The lines on their way to the sink, and the thread that delivers them. Never destroyed: a
// line may be said while the process exits.
class SinkQueue {
public:
    static SinkQueue& shared() {
        static auto* queue = [] {
            pthread_atfork([] { shared().mutex_.lock(); }, [] { shared().mutex_.unlock(); },
                           [] { shared().afterForkInChild(); });
            return new SinkQueue;
        }();
        return *queue;
    }

    bool isOn() const { return on_.load(std::memory_order_acquire); }

    void setSink(Platform::DiagnosticsSink sink) {
        Sink replacement =
            sink ? std::make_shared<const Platform::DiagnosticsSink>(std::move(sink)) : nullptr;
        Sink replaced;
        std::unique_lock lock(mutex_);
        if (!onSinkThread) {
            const std::uint64_t said = said_;
            delivered_.wait(lock, [&] { return deliveredCount_ >= said || !thread_; });
        }
        replaced = std::exchange(sink_, std::move(replacement));
        on_.store(sink_ != nullptr, std::memory_order_release);
        const std::uint64_t generation = ++sinkGeneration_;
        if (!onSinkThread) {
            // The line being delivered now may still be the old sink's.
            delivered_.wait(lock, [&] { return !delivering_ || callGeneration_ == generation; });
        }
        lock.unlock();
    }

    void report(DiagnosticLevel level, const std::string& message) {
        std::unique_lock lock(mutex_);
        if (stopped_) {
            // The process exits and the thread is gone: said here, as nothing else would.
            const Sink sink = sink_;
            lock.unlock();
            deliver(sink, {level, message});
            return;
        }
        if (lines_.size() >= Diagnostics::kMaxWaitingLines ||
            bytes_ + message.size() > Diagnostics::kMaxWaitingBytes) {
            ++dropped_;
            ++droppedTotal_;
            return;
        }
        // Drops are said where they happened: after the lines before them.
        pushDroppedLocked();
        push({level, message});
        if (!thread_) {
            try {
                thread_ = startSdkThread("norv-sink", [this] { run(); });
            } catch (const std::system_error&) {
                // No thread: the line waits for the next one that starts.
                return;
            }
            static std::once_flag registered;
            std::call_once(registered, [] { std::atexit([] { shared().stopAtExit(); }); });
        }
        if (idle_) {
            idle_ = false;
            lock.unlock();
            work_.notify_one();
        }
    }

    bool waitUntilDelivered(std::chrono::steady_clock::time_point deadline) {
        if (onSinkThread) {
            return true;
        }
        std::unique_lock lock(mutex_);
        const std::uint64_t said = said_;
        return delivered_.wait_until(lock, deadline,
                                     [&] { return deliveredCount_ >= said || !thread_; });
    }

    std::size_t droppedCount() {
        std::lock_guard lock(mutex_);
        return droppedTotal_;
    }

private:
    SinkQueue() = default;

    void run() {
        onSinkThread = true;
        std::unique_lock lock(mutex_);
        while (true) {
            if (lines_.empty() && dropped_ == 0) {
                delivered_.notify_all();
                if (stopping_) {
                    stopped_ = true;
                    break;
                }
                idle_ = true;
                work_.wait(lock, [this] { return !idle_ || stopping_; });
                idle_ = false;
                continue;
            }
            pushDroppedLocked();
            const Line line = std::move(lines_.front());
            lines_.pop_front();
            bytes_ -= line.message.size();
            const Sink sink = sink_;
            delivering_ = true;
            callGeneration_ = sinkGeneration_;
            lock.unlock();
            deliver(sink, line);
            lock.lock();
            delivering_ = false;
            ++deliveredCount_;
            delivered_.notify_all();
        }
    }

    // At exit the thread says what waits and ends; later lines are said where they are said.
    void stopAtExit() {
        std::optional<std::thread> thread;
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            stopped_ = !thread_;
            std::swap(thread, thread_);
        }
        work_.notify_one();
        if (thread && thread->get_id() != std::this_thread::get_id()) {
            thread->join();
        } else if (thread) {
            // exit() called from a sink: the thread ends with the process.
            thread->detach();
        }
    }

    void push(Line line) {
        bytes_ += line.message.size();
        lines_.push_back(std::move(line));
        ++said_;
    }

    void pushDroppedLocked() {
        if (dropped_ > 0) {
            push({DiagnosticLevel::Warning, std::to_string(std::exchange(dropped_, 0)) +
                                                " diagnostics lines were dropped: the sink "
                                                "fell behind."});
        }
    }

    // The lines and the thread are the parent's; the child's first line starts a thread anew.
    void afterForkInChild() {
        static_cast<void>(new std::deque<Line>(std::move(lines_)));
        lines_.clear();
        bytes_ = 0;
        dropped_ = 0;
        deliveredCount_ = said_;
        delivering_ = false;
        idle_ = false;
        if (thread_) {
            abandonParentsThread(*thread_);
            thread_.reset();
        }
        new (&work_) std::condition_variable;
        new (&delivered_) std::condition_variable;
        mutex_.unlock();
    }

    std::mutex mutex_;
    std::condition_variable work_;
    std::condition_variable delivered_;
    std::deque<Line> lines_;
    std::size_t bytes_ = 0;
    // Lines queued and lines handed to a sink, ever: what waitUntilDelivered compares.
    std::uint64_t said_ = 0;
    std::uint64_t deliveredCount_ = 0;
    // Dropped since the last "dropped" line, and in all.
    std::size_t dropped_ = 0;
    std::size_t droppedTotal_ = 0;
    Sink sink_;
    std::atomic<bool> on_{false};
    // Which sink a call in progress belongs to, so that a change waits only for the old one's.
    std::uint64_t sinkGeneration_ = 0;
    std::uint64_t callGeneration_ = 0;
    bool delivering_ = false;
    bool idle_ = false;
    bool stopping_ = false;
    bool stopped_ = false;
    // Let go of, never joined, in a forked child: the thread is the parent's.
    std::optional<std::thread> thread_;
};

}  // namespace

void Diagnostics::setSink(Platform::DiagnosticsSink sink) {
    SinkQueue::shared().setSink(std::move(sink));
}

bool Diagnostics::isOn() { return SinkQueue::shared().isOn(); }

void Diagnostics::report(DiagnosticLevel level, const std::string& message) {
    if (!isOn()) {
        return;
    }
    SinkQueue::shared().report(level, message);
}

bool Diagnostics::waitUntilDelivered(std::chrono::steady_clock::time_point deadline) {
    return SinkQueue::shared().waitUntilDelivered(deadline);
}

std::size_t Diagnostics::droppedCount() { return SinkQueue::shared().droppedCount(); }

}  // namespace NorvAnalytic
