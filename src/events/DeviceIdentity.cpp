#include "events/DeviceIdentity.h"

#include <uuid/uuid.h>

#include <unordered_map>

namespace NorvAnalytic {

const Text& DeviceIdentity::service() {
    static const auto* name = new Text("NorvAnalyticDeviceUUID");
    return *name;
}

const Text& DeviceIdentity::deviceUUIDKey() {
    static const auto* name = new Text("device_uuid");
    return *name;
}

const Text& DeviceIdentity::userIdKey() {
    static const auto* name = new Text("user_id");
    return *name;
}

std::string DeviceIdentity::newUUID() {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_upper(uuid, text);
    return std::string(text, 36);
}

Text DeviceIdentity::modelName(const std::string& machineIdentifier) {
    // Built once and never destroyed. The names are the server's, irregularities included.
    static const auto* table = new std::unordered_map<std::string, std::string>{
        {"i386", "Simulator"},
        {"x86_64", "Simulator"},
        {"iPod1,1", "iPod Touch"},
        {"iPod2,1", "iPod Touch"},
        {"iPod3,1", "iPod Touch"},
        {"iPod4,1", "iPod Touch"},
        {"iPod7,1", "iPod Touch"},
        {"iPhone1,1", "iPhone"},
        {"iPhone1,2", "iPhone"},
        {"iPhone2,1", "iPhone"},
        {"iPad1,1", "iPad"},
        {"iPad2,1", "iPad 2"},
        {"iPad3,1", "iPad"},
        {"iPhone3,1", "iPhone 4"},
        {"iPhone3,3", "iPhone 4"},
        {"iPhone4,1", "iPhone 4S"},
        {"iPhone5,1", "iPhone 5"},
        {"iPhone5,2", "iPhone 5"},
        {"iPad3,4", "iPad"},
        {"iPad2,5", "iPad Mini"},
        {"iPhone5,3", "iPhone 5c"},
        {"iPhone5,4", "iPhone 5c"},
        {"iPhone6,1", "iPhone 5s"},
        {"iPhone6,2", "iPhone 5s"},
        {"iPhone7,1", "iPhone 6 Plus"},
        {"iPhone7,2", "iPhone 6"},
        {"iPhone8,1", "iPhone 6S"},
        {"iPhone8,2", "iPhone 6S Plus"},
        {"iPhone8,4", "iPhone SE"},
        {"iPhone9,1", "iPhone 7"},
        {"iPhone9,3", "iPhone 7"},
        {"iPhone9,2", "iPhone 7 Plus"},
        {"iPhone9,4", "iPhone 7 Plus"},
        {"iPad4,1", "iPad Air"},
        {"iPad4,2", "iPad Air"},
        {"iPad4,4", "iPad Mini"},
        {"iPad4,5", "iPad Mini"},
        {"iPad4,7", "iPad Mini"},
        {"iPad6,7", "iPad Pro (12.9\")"},
        {"iPad6,8", "iPad Pro (12.9\")"},
        {"iPad6,3", "iPad Pro (9.7\")"},
        {"iPad6,4", "iPad Pro (9.7\")"},
    };
    auto found = table->find(machineIdentifier);
    if (found == table->end()) {
        return std::nullopt;
    }
    return found->second;
}

}  // namespace NorvAnalytic
