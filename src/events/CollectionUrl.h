#pragma once

#include <optional>
#include <string>

namespace NorvAnalytic {

// The collection URL's two forms, "https://" or "http://", the server's host and the one path.
class CollectionUrl {
public:
    static std::string build(const std::string& host, bool secure);
    // Why the text cannot stand for a collection server's "host" or "host:port", or nothing
    // when it can.
    static std::optional<std::string> hostRefusal(const std::string& host);
};

}  // namespace NorvAnalytic
