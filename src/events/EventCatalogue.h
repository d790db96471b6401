#pragma once

#include <NorvAnalytic/Types.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace NorvAnalytic {

// The event types the server files: a type index names a type id, a type id a name.
class EventCatalogue {
public:
    // Indices of the types the convenience calls send.
    enum Index : std::int32_t {
        ResponseTime = 0,
        AppOpen = 1,
        UserLogin = 4,
        UserLogout = 5,
        PageOpen = 6,
        UserCanNotLogin = 8,
        DataNotRetrieved = 9,
        BluetoothStatus = 10,
        LocationServiceStatus = 11,
        ExternalAccessoryBatteryLow = 13,
        ExternalAccessoryBatteryStatus = 14,
        PushSubscriber = 15,
        DeviceCustomName = 16,
    };

    // The type id at an index, or nil outside the catalogue.
    static Text typeId(std::int32_t index);
    // The name of a type id, or "" for an id without one.
    static std::string typeName(const Text& typeId);
    static bool isAppOpen(const Text& typeId);
    // "App Open event (type 2)": how diagnostics lines name an event.
    static std::string describe(const Text& typeId);
};

}  // namespace NorvAnalytic
