#pragma once

#include <NorvAnalytic/Types.h>

#include <string>

namespace NorvAnalytic {

// Where the device's identity is kept, how a new UUID is made, and the model-name table.
class DeviceIdentity {
public:
    // Both items share the one service named for the UUID.
    static const Text& service();
    static const Text& deviceUUIDKey();
    static const Text& userIdKey();

    // A fresh random UUID, 36 characters, upper-case.
    static std::string newUUID();
    // The model name for a machine identifier, or nil when the table does not know it.
    static Text modelName(const std::string& machineIdentifier);
};

}  // namespace NorvAnalytic
