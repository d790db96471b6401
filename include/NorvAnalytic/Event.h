#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/Types.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace NorvAnalytic {

// An event the server refused, kept in memory to be sent once more.
struct NORVANALYTIC_EXPORT Event {
    Text key = std::nullopt;
    Text value = std::nullopt;
    Text eventTypeId = std::nullopt;
    Text endpoint = std::nullopt;
    Text version = std::nullopt;
    Text parameters = std::nullopt;
    Text response = std::nullopt;
    Text device_uuid = std::nullopt;
    Text pageName = std::nullopt;
    Text player_id = std::nullopt;
    Text username = std::nullopt;
    Text warehouse = std::nullopt;
    Text error = std::nullopt;
    Text deviceCustomName = std::nullopt;
    Text deviceName = std::nullopt;
    std::int64_t statusCode = 0;

    // The process's saved events, oldest first. Main queue only.
    static std::vector<std::shared_ptr<Event>>& savedEvents();
    // Appends a refused event to savedEvents(). Main queue only.
    static void keepEventWithTypeId(Text typeId, float value, Text endpoint, Text parameters,
                                    Text response, Text pageName, Text playerId, Text username,
                                    Text warehouse, Text error, Text deviceCustomName,
                                    Text deviceName, std::int64_t statusCode);
};

}  // namespace NorvAnalytic
