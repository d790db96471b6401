#pragma once

#include <cstdint>

namespace NorvAnalytic {

// Whether the host's user lets events leave the process; allowed until the host says not.
class CollectionConsent {
public:
    // Any thread, no lock: read on every event call.
    static bool allowed() noexcept;
    static void countDiscarded(std::uint64_t count) noexcept;
    static std::uint64_t discardedCount() noexcept;
};

}  // namespace NorvAnalytic
