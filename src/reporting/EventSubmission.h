#pragma once

#include "reporting/EventFields.h"

namespace NorvAnalytic {

// Sends one event at once, unless collection is off. Any thread; never waits on the network.
void submitEvent(const EventFields& event, bool isSavedEvent);

}  // namespace NorvAnalytic
