#include "delivery/PrivacyEpoch.h"

#include <atomic>

namespace NorvAnalytic {

namespace {

// Forgets in the high half, withdrawals in the low half: one load tells both.
constexpr std::uint64_t kOneForget = std::uint64_t{1} << 32;

std::atomic<std::uint64_t> generation{0};

}  // namespace

std::uint64_t PrivacyEpoch::current() noexcept { return generation.load(std::memory_order_acquire); }

std::uint64_t PrivacyEpoch::advance(FenceKind kind) noexcept {
    const std::uint64_t step = kind == FenceKind::DeviceForgotten ? kOneForget : 1;
    return generation.fetch_add(step, std::memory_order_acq_rel) + step;
}

FenceKind PrivacyEpoch::fenceSince(std::uint64_t epoch) noexcept {
    return (current() >> 32) != (epoch >> 32) ? FenceKind::DeviceForgotten
                                              : FenceKind::ConsentWithdrawn;
}

}  // namespace NorvAnalytic
