#pragma once

#include <string>

#include "CollectorStore.h"

namespace NorvAnalytic::Collector {

// Stored events as lines of a file for other tools: JSON Lines, every value exact; or CSV
// (RFC 4180) under a header line, a value a spreadsheet would run as a formula made text with
// a leading '. The command line's export and the page's download link write the same lines.
class EventExport {
public:
    // True for "jsonl" and "csv".
    static bool knows(const std::string& format);
    // The line that starts the file ("" for JSON Lines).
    static std::string header(const std::string& format);
    // One event, ending with a line break.
    static std::string line(const std::string& format, const StoredEvent& event);
    static std::string contentType(const std::string& format);
};

}  // namespace NorvAnalytic::Collector
