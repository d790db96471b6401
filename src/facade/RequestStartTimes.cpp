#include "facade/RequestStartTimes.h"

namespace NorvAnalytic {

RequestStartTimes& RequestStartTimes::shared() {
    static auto* table = new RequestStartTimes;
    return *table;
}

void RequestStartTimes::set(const std::string& endpoint, Date start) {
    std::lock_guard lock(mutex_);
    starts_.insert_or_assign(endpoint, start);
}

std::optional<Date> RequestStartTimes::take(const std::string& endpoint) {
    std::lock_guard lock(mutex_);
    auto found = starts_.find(endpoint);
    if (found == starts_.end()) {
        return std::nullopt;
    }
    const Date start = found->second;
    starts_.erase(found);
    return start;
}

}  // namespace NorvAnalytic
