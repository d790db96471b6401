#pragma once

#include <cstdint>

namespace NorvAnalytic {

enum class FenceKind { ConsentWithdrawn, DeviceForgotten };

// The generation of the privacy fences. Every event carries the one it was recorded in, and a
// withdrawal of consent or a forgotten device starts a new one, so whatever an event meets later
// (its build, its send, its answer, its resend) tells at a glance that it came before a fence.
// Any thread, no lock.
class PrivacyEpoch {
public:
    static std::uint64_t current() noexcept;
    static bool isCurrent(std::uint64_t epoch) noexcept { return epoch == current(); }
    // Starts a new generation; returns it.
    static std::uint64_t advance(FenceKind kind) noexcept;
    // The fence an event of an older generation is discarded by: a forget when one came since.
    static FenceKind fenceSince(std::uint64_t epoch) noexcept;
};

}  // namespace NorvAnalytic
