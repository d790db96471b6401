#pragma once

#include <memory>

#include "delivery/DeviceFactsSource.h"

namespace NorvAnalytic {

// The device's facts as the facade knows them: the identity from the keychain cache, the model,
// the versions, and for an app-open event the battery and the store user id.
class DeviceFactsReader final : public DeviceFactsSource {
public:
    static DeviceFactsReader& shared();
    std::shared_ptr<const DeviceFacts> read() override;
    std::shared_ptr<const DeviceFacts> withAppOpenFacts(const DeviceFacts& facts) override;
};

}  // namespace NorvAnalytic
