#include "facade/DeviceFactsReader.h"

#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include "BuildConfig.h"
#include "events/TextFormat.h"
#include "keychain/KeychainItemCache.h"
#include "events/DeviceIdentity.h"

namespace NorvAnalytic {

DeviceFactsReader& DeviceFactsReader::shared() {
    static auto* reader = new DeviceFactsReader;
    return *reader;
}

std::shared_ptr<const DeviceFacts> DeviceFactsReader::read() {
    NorvAnalytics& controller = NorvAnalytics::sharedController();
    return std::make_shared<const DeviceFacts>(DeviceFacts{
        .deviceUUID = NorvAnalytics::getNorvAnalyticUUID(),
        .sdkVersion =
            TextFormat::version(Bundle::bundleWithIdentifier(BuildConfig::kSdkBundleIdentifier)),
        .deviceModel = controller.getDeviceModel(),
        .systemVersion = Platform::device()->systemVersion(),
    });
}

std::shared_ptr<const DeviceFacts> DeviceFactsReader::withAppOpenFacts(const DeviceFacts& facts) {
    const std::shared_ptr<Device> device = Platform::device();
    auto appOpen = std::make_shared<DeviceFacts>(facts);
    device->setBatteryMonitoringEnabled(true);
    appOpen->batteryLevel = device->batteryLevel();
    device->setBatteryMonitoringEnabled(false);
    appOpen->userId = KeychainItemCache::shared()
                          .item(*DeviceIdentity::userIdKey(), *DeviceIdentity::service())
                          .value;
    return appOpen;
}

}  // namespace NorvAnalytic
