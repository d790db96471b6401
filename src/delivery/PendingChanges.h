#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <vector>

#include "delivery/QueueFile.h"

namespace NorvAnalytic {

// What answers changed of the queue file's rows, waiting for their group commit: written with
// the next events, at kPerCommit changes, or kDelay after the first, whichever comes first. A kill
// can cost a duplicate of what was answered meanwhile. Plain state: its owner locks it.
class PendingChanges {
public:
    static constexpr std::size_t kPerCommit = 128;
    static constexpr std::chrono::milliseconds kDelay{10};

    // True when the writer is to be woken: the first starts its wait, a full group is due.
    bool add(const std::vector<QueueFile::Change>& changes);
    bool empty() const { return changes_.empty(); }
    bool full() const { return changes_.size() >= kPerCommit; }
    std::chrono::steady_clock::time_point dueAt() const { return since_ + kDelay; }
    // The group, when forced or due.
    std::vector<QueueFile::Change> take(bool force);
    // A group the file refused goes back in front of what came since.
    void giveBack(std::vector<QueueFile::Change> changes);
    void clear() { changes_.clear(); }

private:
    std::vector<QueueFile::Change> changes_;
    std::chrono::steady_clock::time_point since_;
};

}  // namespace NorvAnalytic
