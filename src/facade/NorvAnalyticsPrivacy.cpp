#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>

#include <atomic>

#include "delivery/EventIds.h"
#include "events/SavedEvents.h"
#include "facade/CollectionConsent.h"
#include "facade/ControllerState.h"
#include "facade/EventDelivery.h"
#include "facade/IdentityErasure.h"
#include "facade/RequestStartTimes.h"
#include "facade/SavedEventTags.h"

namespace NorvAnalytic {

namespace {

std::atomic<bool> collectionAllowed{true};
std::atomic<std::uint64_t> discardedWithoutConsent{0};

// The saved list is the main queue's: its events of before the fence go there, at once when
// this is that queue. Until then a tick finds and drops them itself.
void dropFencedSavedEvents() {
    const auto drop = [] { SavedEventTags::shared().dropFenced(Event::savedEvents()); };
    if (MainQueue::main().isCurrent()) {
        drop();
    } else {
        MainQueue::main().async(drop);
    }
}

}  // namespace

bool CollectionConsent::allowed() noexcept {
    return collectionAllowed.load(std::memory_order_acquire);
}

void CollectionConsent::countDiscarded(std::uint64_t count) noexcept {
    discardedWithoutConsent.fetch_add(count, std::memory_order_relaxed);
}

std::uint64_t CollectionConsent::discardedCount() noexcept {
    return discardedWithoutConsent.load(std::memory_order_relaxed);
}

void NorvAnalytics::setPersistentQueue(bool enabled) {
    EventDelivery::outbox().setPersistent(enabled);
}

void NorvAnalytics::setIdempotencyKeys(bool enabled) { EventIds::setEnabled(enabled); }

void NorvAnalytics::setCollectionAllowed(bool allowed) {
    const bool wasAllowed = collectionAllowed.exchange(allowed, std::memory_order_acq_rel);
    if (allowed && !wasAllowed) {
        // The queue file is read again once the SDK has started.
        if (ControllerState::locked([](const ControllerState& state) { return state.isEnabled; })) {
            EventDelivery::outbox().recover();
        }
    }
    if (!allowed && wasAllowed) {
        EventDelivery::outbox().fence(FenceKind::ConsentWithdrawn);
        RequestStartTimes::shared().clear();
        dropFencedSavedEvents();
    }
}

std::uint64_t NorvAnalytics::discardedWithoutConsentCount() {
    return CollectionConsent::discardedCount();
}

void NorvAnalytics::forgetDevice() {
    EventDelivery::outbox().fence(FenceKind::DeviceForgotten);
    eraseDeviceIdentity();
    RequestStartTimes::shared().clear();
    dropFencedSavedEvents();
}

std::uint64_t NorvAnalytics::discardedByForgetCount() { return EventDelivery::discardedByForget(); }

void NorvAnalytics::setSavedEventLimits(std::size_t maxEvents, std::size_t maxBytes) {
    SavedEvents::setLimits(maxEvents, maxBytes);
}

std::uint64_t NorvAnalytics::droppedEventCount() {
    return EventDelivery::outbox().droppedCount() + SavedEvents::droppedCount();
}

}  // namespace NorvAnalytic
