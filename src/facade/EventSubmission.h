#pragma once

#include <NorvAnalytic/Event.h>

#include <string_view>

namespace NorvAnalytic {

// Sends one event, unless collection is off: its record joins the delivery queue, with eventId as
// its idempotency key (a new one when empty and keys are on). Any thread; never waits on the
// network, the keychain or the disk.
void submitEvent(const Event& event, bool isSavedEvent, std::string_view eventId = {}) noexcept;

}  // namespace NorvAnalytic
