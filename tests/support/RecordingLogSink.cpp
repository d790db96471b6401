#include "support/RecordingLogSink.h"

#include <NorvAnalytic/Platform.h>

namespace NorvAnalytic::Testing {

RecordingLogSink::RecordingLogSink() {
    Platform::setLogSink([this](const std::string& message) {
        std::lock_guard lock(mutex_);
        lines_.push_back(message);
    });
}

RecordingLogSink::~RecordingLogSink() { Platform::setLogSink(nullptr); }

std::vector<std::string> RecordingLogSink::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

void RecordingLogSink::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

}  // namespace NorvAnalytic::Testing
