#pragma once

#include <NorvAnalytic/Types.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace NorvAnalytic {

// The collection server's answer as a JSON document, read the way the SDK reads it: anything
// that is not an object where an object is expected counts as absent.
class ServerAnswer {
public:
    using Json = nlohmann::ordered_json;

    // Deeper answers are taken as not JSON: nothing the server sends nests that far.
    static constexpr std::size_t kMaxDepth = 512;

    // An absent document for a body that is not a JSON object.
    static std::optional<Json> parse(std::string_view body);

    // The member of an object, absent when the object or the member is absent.
    static const Json* member(const Json* object, std::string_view key);
    // "%@" of a JSON value: text as is, numbers in decimal, true/false as 1/0, null as
    // "<null>", objects and arrays as compact JSON, an absent value as "(null)".
    static std::string describe(const Json* value);
    // Whether a value counts as on: true, a non-zero number, or a text starting like "yes",
    // "true" or a non-zero number.
    static bool truth(const Json* value);
    // A version entry, or nothing when the value is not an object.
    static std::optional<VersionEntry> versionEntry(const Json* value);

private:
    static bool nestsDeeperThan(std::string_view body, std::size_t limit);
};

}  // namespace NorvAnalytic
