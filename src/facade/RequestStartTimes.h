#pragma once

#include <NorvAnalytic/Types.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace NorvAnalytic {

// The start times of the host's own requests, one per endpoint, shared by every thread. A start
// that never ends would stay for ever: beyond kMaxEndpoints the oldest start is forgotten.
class RequestStartTimes {
public:
    static constexpr std::size_t kMaxEndpoints = 1000;

    static RequestStartTimes& shared();

    // A newer start for an endpoint replaces the older one.
    void set(const std::string& endpoint, Date start);
    // The endpoint's start, removed in the same step so that a start is used at most once.
    std::optional<Date> take(const std::string& endpoint);
    void clear();

private:
    struct Start {
        Date time;
        std::list<std::string>::iterator age;
    };
    std::mutex mutex_;
    std::unordered_map<std::string, Start> starts_;
    // Oldest first.
    std::list<std::string> ages_;
    std::uint64_t forgotten_ = 0;
};

}  // namespace NorvAnalytic
