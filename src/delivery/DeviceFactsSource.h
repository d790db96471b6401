#pragma once

#include <memory>

#include "events/EventTable.h"

namespace NorvAnalytic {

// What every event says about the app and the device, read for delivery by the layer that owns
// the identity. Called on the delivery thread only, never the host's: the first read of the
// device UUID may wait for the keychain store.
class DeviceFactsSource {
public:
    virtual ~DeviceFactsSource() = default;
    virtual std::shared_ptr<const DeviceFacts> read() = 0;
    // The same facts with the battery level and the store user id an app-open event carries.
    virtual std::shared_ptr<const DeviceFacts> withAppOpenFacts(const DeviceFacts& facts) = 0;
};

}  // namespace NorvAnalytic
