#pragma once

#include <chrono>
#include <condition_variable>
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
    // How many lines were written from outside the main queue.
    std::size_t linesOffMainQueue() const;
    void clear();
    // Waits until at least count lines arrived; false on time-out.
    bool waitForLines(std::size_t count,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> lines_;
    std::size_t linesOffMainQueue_ = 0;
};

}  // namespace NorvAnalytic::Testing
