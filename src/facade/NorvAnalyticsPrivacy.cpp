#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>

#include <atomic>

#include "delivery/DeliveryQueue.h"
#include "delivery/QueueFile.h"
#include "events/SavedEvents.h"
#include "facade/CollectionConsent.h"
#include "facade/IdentityErasure.h"
#include "keychain/FileKeychainBackend.h"

namespace NorvAnalytic {

namespace {

std::atomic<bool> collectionAllowed{true};
std::atomic<std::uint64_t> discardedWithoutConsent{0};

// The saved list is the main queue's: dropped there, at once when this is that queue.
void dropSavedEvents(bool countAsDiscarded) {
    const auto drop = [countAsDiscarded] {
        auto& saved = Event::savedEvents();
        if (countAsDiscarded) {
            CollectionConsent::countDiscarded(saved.size());
        }
        saved.clear();
    };
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

void CollectionConsent::set(bool allowed) noexcept {
    collectionAllowed.store(allowed, std::memory_order_release);
}

void CollectionConsent::countDiscarded(std::uint64_t count) noexcept {
    discardedWithoutConsent.fetch_add(count, std::memory_order_relaxed);
}

std::uint64_t CollectionConsent::discardedCount() noexcept {
    return discardedWithoutConsent.load(std::memory_order_relaxed);
}

void NorvAnalytics::setPersistentQueue(bool enabled) {
    DeliveryQueue::shared().setPersistent(enabled);
}

void NorvAnalytics::setCollectionAllowed(bool allowed) {
    const bool wasAllowed = collectionAllowed.exchange(allowed, std::memory_order_acq_rel);
    if (allowed && !wasAllowed) {
        DeliveryQueue::shared().recover();
    }
    if (!allowed && wasAllowed) {
        DeliveryQueue::shared().discardAll();
        dropSavedEvents(true);
    }
}

std::uint64_t NorvAnalytics::discardedWithoutConsentCount() {
    return CollectionConsent::discardedCount();
}

void NorvAnalytics::forgetDevice() {
    DeliveryQueue::shared().eraseWhileHeld([] {
        eraseDeviceIdentity();
        QueueFile::eraseAll(FileKeychainBackend::defaultPath().parent_path());
    });
    dropSavedEvents(false);
}

void NorvAnalytics::setSavedEventLimits(std::size_t maxEvents, std::size_t maxBytes) {
    SavedEvents::setLimits(maxEvents, maxBytes);
}

std::uint64_t NorvAnalytics::droppedEventCount() {
    return DeliveryQueue::shared().droppedCount() + SavedEvents::droppedCount();
}

}  // namespace NorvAnalytic
