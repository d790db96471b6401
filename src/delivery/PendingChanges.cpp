#include "delivery/PendingChanges.h"

namespace NorvAnalytic {

bool PendingChanges::add(const std::vector<QueueFile::Change>& changes) {
    if (changes_.empty()) {
        since_ = std::chrono::steady_clock::now();
    }
    changes_.insert(changes_.end(), changes.begin(), changes.end());
    return changes_.size() == changes.size() || full();
}

std::vector<QueueFile::Change> PendingChanges::take(bool force) {
    std::vector<QueueFile::Change> taken;
    if (force || full() || std::chrono::steady_clock::now() >= dueAt()) {
        taken.swap(changes_);
    }
    return taken;
}

void PendingChanges::giveBack(std::vector<QueueFile::Change> changes) {
    changes.insert(changes.end(), changes_.begin(), changes_.end());
    changes_.swap(changes);
}

}  // namespace NorvAnalytic
