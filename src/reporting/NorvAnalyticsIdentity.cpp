#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include "reporting/DeviceIdentity.h"

namespace NorvAnalytic {

namespace {

// Keychain failures stay silent here: the SDK goes on with whatever it could read.
std::string makeAndStoreUUID() {
    std::string uuid = DeviceIdentity::newUUID();
    Keychain::saveItem(uuid, DeviceIdentity::deviceUUIDKey(), DeviceIdentity::service(), nullptr);
    return uuid;
}

}  // namespace

// Making sure a UUID exists is reading it: a missing or unreadable one is made and stored.
void NorvAnalytics::setUUID() { getNorvAnalyticUUID(); }

std::string NorvAnalytics::getNorvAnalyticUUID() {
    if (Text stored = Keychain::itemForKey(DeviceIdentity::deviceUUIDKey(),
                                           DeviceIdentity::service(), nullptr)) {
        return *stored;
    }
    return makeAndStoreUUID();
}

void NorvAnalytics::saveStoreUserID(const Text& userId) {
    const Text stored =
        Keychain::itemForKey(DeviceIdentity::userIdKey(), DeviceIdentity::service(), nullptr);
    if (stored && userId && *stored == *userId) {
        return;
    }
    // Saving nil deletes the stored id.
    Keychain::saveItem(userId, DeviceIdentity::userIdKey(), DeviceIdentity::service(), nullptr);
}

Text NorvAnalytics::getDeviceModel() {
    return DeviceIdentity::modelName(Platform::device()->machineIdentifier());
}

}  // namespace NorvAnalytic
