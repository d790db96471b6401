#pragma once

#include <NorvAnalytic/Types.h>

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace NorvAnalytic {

// The start times of the host's own requests, one per endpoint, shared by every thread.
class RequestStartTimes {
public:
    static RequestStartTimes& shared();

    // A newer start for an endpoint replaces the older one.
    void set(const std::string& endpoint, Date start);
    // The endpoint's start, removed in the same step so that a start is used at most once.
    std::optional<Date> take(const std::string& endpoint);

private:
    std::mutex mutex_;
    std::unordered_map<std::string, Date> starts_;
};

}  // namespace NorvAnalytic
