#include "support/RecordingLogSink.h"

#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/Platform.h>

namespace NorvAnalytic::Testing {

RecordingLogSink::RecordingLogSink() {
    Platform::setLogSink([this](const std::string& message) {
        {
            std::lock_guard lock(mutex_);
            lines_.push_back(message);
            if (!MainQueue::main().isCurrent()) {
                ++linesOffMainQueue_;
            }
        }
        changed_.notify_all();
    });
}

RecordingLogSink::~RecordingLogSink() { Platform::setLogSink(nullptr); }

std::vector<std::string> RecordingLogSink::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::size_t RecordingLogSink::linesOffMainQueue() const {
    std::lock_guard lock(mutex_);
    return linesOffMainQueue_;
}

void RecordingLogSink::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

bool RecordingLogSink::waitForLines(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return lines_.size() >= count; });
}

}  // namespace NorvAnalytic::Testing
