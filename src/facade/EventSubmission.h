#pragma once

#include <NorvAnalytic/Event.h>

namespace NorvAnalytic {

// Sends one event, unless collection is off: its record joins the delivery queue. Any thread;
// never waits on the network, the keychain or the disk.
void submitEvent(const Event& event, bool isSavedEvent) noexcept;

}  // namespace NorvAnalytic
