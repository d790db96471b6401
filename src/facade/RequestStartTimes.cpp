#include "facade/RequestStartTimes.h"

#include "platform/Diagnostics.h"

namespace NorvAnalytic {

RequestStartTimes& RequestStartTimes::shared() {
    static auto* table = new RequestStartTimes;
    return *table;
}

void RequestStartTimes::set(const std::string& endpoint, Date start) {
    bool firstForgotten = false;
    {
        std::lock_guard lock(mutex_);
        if (auto found = starts_.find(endpoint); found != starts_.end()) {
            found->second.time = start;
            ages_.splice(ages_.end(), ages_, found->second.age);
            return;
        }
        ages_.push_back(endpoint);
        starts_.emplace(endpoint, Start{start, std::prev(ages_.end())});
        if (starts_.size() > kMaxEndpoints) {
            starts_.erase(ages_.front());
            ages_.pop_front();
            firstForgotten = forgotten_++ == 0;
        }
    }
    if (firstForgotten) {
        Diagnostics::report(DiagnosticLevel::Warning,
                            "Request start times of more than 1000 endpoints are waiting for "
                            "their end: the oldest are forgotten, and their end sends nothing.");
    }
}

std::optional<Date> RequestStartTimes::take(const std::string& endpoint) {
    std::lock_guard lock(mutex_);
    auto found = starts_.find(endpoint);
    if (found == starts_.end()) {
        return std::nullopt;
    }
    const Date start = found->second.time;
    ages_.erase(found->second.age);
    starts_.erase(found);
    return start;
}

void RequestStartTimes::clear() {
    std::lock_guard lock(mutex_);
    starts_.clear();
    ages_.clear();
}

}  // namespace NorvAnalytic
