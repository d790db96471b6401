#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace NorvAnalytic {

// A string that may be nil. Under "%@" it prints as itself, or "(null)" when nil.
using Text = std::optional<std::string>;

// Raw bytes, as stored in the keychain.
using Data = std::vector<std::uint8_t>;

// A wall-clock point in time.
using Date = std::chrono::system_clock::time_point;

// The status of a keychain operation: 0 is success.
using OSStatus = std::int32_t;

// An error object: a domain, a code and the user-info entries the SDK uses.
struct Error {
    std::string domain;
    std::int64_t code = 0;
    Text localizedDescription;
    Text localizedFailureReason;
    std::shared_ptr<const Error> underlyingError;
};

// Reachability of the internet, as answered by Connection::currentReachabilityStatus().
enum ConnectionStatus : std::int64_t {
    ConnectionStatusNone = 0,
    ConnectionStatusCellular = 1,
    ConnectionStatusWiFi = 2,
};

// What presenting an update prompt did.
enum class UpdatePromptResult { NotNewer, AlreadyShowing, Presented };

// A forced or offered app version named by the collection server.
struct VersionEntry {
    Text no;
    Text download_url;
};

// Everything a request's completion needs to know about the event it carried.
struct EventResponseContext {
    Text typeId;
    Text endpoint;
    Text parameters;
    Text response;
    Text pageName;
    Text playerId;
    Text username;
    Text warehouse;
    Text error;
    Text deviceCustomName;
    Text deviceName;
    std::string deviceUUID;
    std::string requestBody;
    float value = 0.0F;
    bool isSavedEvent = false;
};

}  // namespace NorvAnalytic
