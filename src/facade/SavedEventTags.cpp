#include "facade/SavedEventTags.h"

#include "delivery/Outbox.h"
#include "facade/EventDelivery.h"
#include "mainqueue/MainQueueCheck.h"

namespace NorvAnalytic {

namespace {

void releaseRow(const JournalRow& row) {
    if (row) {
        Outbox::shared().journal().settle(row, Journal::Settlement::Delivered, false);
    }
}

}  // namespace

SavedEventTags& SavedEventTags::shared() {
    static auto* tags = new SavedEventTags;
    return *tags;
}

void SavedEventTags::tag(const std::shared_ptr<Event>& event, Tag tag) {
    assertOnMainQueue();
    auto [entry, added] = tags_.try_emplace(event.get(), Entry{tag, event});
    if (!added) {
        // An event gone from the list whose address was reused: its row goes.
        releaseRow(entry->second.tag.row);
        entry->second = {std::move(tag), event};
    }
}

std::optional<SavedEventTags::Tag> SavedEventTags::take(const Event* event) {
    assertOnMainQueue();
    const auto entry = tags_.find(event);
    if (entry == tags_.end()) {
        return std::nullopt;
    }
    if (entry->second.event.expired()) {
        // The address of an event gone from the list, reused by one without a tag.
        releaseRow(entry->second.tag.row);
        tags_.erase(entry);
        return std::nullopt;
    }
    Tag tag = std::move(entry->second.tag);
    tags_.erase(entry);
    return tag;
}

void SavedEventTags::releaseGone() {
    assertOnMainQueue();
    std::erase_if(tags_, [](const auto& entry) {
        if (!entry.second.event.expired()) {
            return false;
        }
        releaseRow(entry.second.tag.row);
        return true;
    });
}

void SavedEventTags::dropFenced(std::vector<std::shared_ptr<Event>>& events) {
    assertOnMainQueue();
    std::erase_if(events, [this](const std::shared_ptr<Event>& event) {
        const auto entry = tags_.find(event.get());
        if (entry == tags_.end() || entry->second.event.expired() ||
            PrivacyEpoch::isCurrent(entry->second.tag.epoch)) {
            return false;
        }
        EventDelivery::countDiscarded(PrivacyEpoch::fenceSince(entry->second.tag.epoch), 1);
        tags_.erase(entry);
        return true;
    });
}

}  // namespace NorvAnalytic
