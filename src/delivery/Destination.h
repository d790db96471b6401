#pragma once

#include <NorvAnalytic/Types.h>

#include <string>

namespace NorvAnalytic {

// Where an event goes: the app key and the collection URL of the moment it was sent, shared by
// every event sent while they stay the same.
struct Destination {
    Text key;
    std::string url;
};

}  // namespace NorvAnalytic
