#pragma once

#include <span>
#include <string_view>

namespace NorvAnalytic::Collector {

// The collector's page: its HTML, style sheet and script, built into the program from
// tools/collector/page/ so that it works offline and always matches the server.
class CollectorPage {
public:
    struct Asset {
        std::string_view path;
        std::string_view contentType;
        std::string_view content;
    };

    static std::span<const Asset> assets();
};

}  // namespace NorvAnalytic::Collector
