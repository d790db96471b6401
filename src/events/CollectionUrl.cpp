#include "events/CollectionUrl.h"

#include <NorvAnalytic/URL.h>

#include <algorithm>

namespace NorvAnalytic {

std::string CollectionUrl::build(const std::string& host, bool secure) {
    return (secure ? "https://" : "http://") + host + "/api/v3/saveEvent";
}

std::optional<std::string> CollectionUrl::hostRefusal(const std::string& host) {
    if (host.empty()) {
        return "it is empty";
    }
    if (std::any_of(host.begin(), host.end(),
                    [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == 0x7f; })) {
        return "it holds a space or a control character";
    }
    if (host.find("://") != std::string::npos) {
        return "it holds a scheme; the SDK adds one";
    }
    if (host.find_first_of("/?#") != std::string::npos) {
        return "it holds a path; the SDK adds one";
    }
    if (host.find('@') != std::string::npos) {
        return "it holds user information";
    }
    if (!URL::URLWithString(build(host, false))) {
        return "it is not a host with an optional port up to 65535";
    }
    return std::nullopt;
}

}  // namespace NorvAnalytic
