#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace NorvAnalytic::Testing {

// Installs itself as the console's sink for its lifetime and keeps every line.
class RecordingLogSink {
public:
    RecordingLogSink();
    ~RecordingLogSink();
    RecordingLogSink(const RecordingLogSink&) = delete;
    RecordingLogSink& operator=(const RecordingLogSink&) = delete;

    std::vector<std::string> lines() const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace NorvAnalytic::Testing
