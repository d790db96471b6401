#pragma once

#include <memory>

#include "events/EventTable.h"

namespace NorvAnalytic {

// Reads what every event says about the app and the device. On the delivery thread, never the
// host's: the first read of the device UUID may wait for the keychain store.
class DeviceFactsReader {
public:
    static std::shared_ptr<const DeviceFacts> read();
    // The same facts with the battery level and the store user id an app-open event carries.
    static std::shared_ptr<const DeviceFacts> withAppOpenFacts(const DeviceFacts& facts);
};

}  // namespace NorvAnalytic
