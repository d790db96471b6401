#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "CollectorStore.h"

namespace NorvAnalytic::Collector {

// The norv-collector command line: "serve", "steer", "refuse", "list" and "export".
class CollectorCli {
public:
    // Runs one command (arguments without the program name) and returns the exit status.
    static int run(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err);

    // One line per event: id, time, status, type id and name, value, device, its summary,
    // body length; under a header line of the column names.
    static void printHeader(std::ostream& out);
    static void printRows(const std::vector<StoredEvent>& events, std::ostream& out);
    // Each event's header line followed by its body exactly as it arrived.
    static void printRaw(const std::vector<StoredEvent>& events, std::ostream& out);
};

}  // namespace NorvAnalytic::Collector
