#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>

#include <atomic>

#include "delivery/DeliveryQueue.h"
#include "events/SavedEvents.h"
#include "facade/CollectionConsent.h"
#include "facade/IdentityErasure.h"

namespace NorvAnalytic {

namespace {

std::atomic<bool> collectionAllowed{true};
std::atomic<std::uint64_t> discardedWithoutConsent{0};

}  // namespace

bool CollectionConsent::allowed() noexcept {
    return collectionAllowed.load(std::memory_order_acquire);
}

void CollectionConsent::set(bool allowed) noexcept {
    collectionAllowed.store(allowed, std::memory_order_release);
}

void CollectionConsent::countDiscarded(std::uint64_t count) noexcept {
    discardedWithoutConsent.fetch_add(count, std::memory_order_relaxed);
}

std::uint64_t CollectionConsent::discardedCount() noexcept {
    return discardedWithoutConsent.load(std::memory_order_relaxed);
}

void NorvAnalytics::setPersistentQueue(bool) {}

void NorvAnalytics::setCollectionAllowed(bool allowed) { CollectionConsent::set(allowed); }

std::uint64_t NorvAnalytics::discardedWithoutConsentCount() {
    return CollectionConsent::discardedCount();
}

void NorvAnalytics::forgetDevice() { eraseDeviceIdentity(); }

void NorvAnalytics::setSavedEventLimits(std::size_t maxEvents, std::size_t maxBytes) {
    SavedEvents::setLimits(maxEvents, maxBytes);
}

std::uint64_t NorvAnalytics::droppedEventCount() {
    return DeliveryQueue::shared().droppedCount() + SavedEvents::droppedCount();
}

}  // namespace NorvAnalytic
