#pragma once

#include <NorvAnalytic/Export.h>

#include <optional>
#include <string>

namespace NorvAnalytic {

// A parsed URL of any scheme.
class NORVANALYTIC_EXPORT URL {
public:
    // The URL for the text, or nothing when the text is not a valid URL (a space, for one).
    static std::optional<URL> URLWithString(const std::string& text);

    // The text exactly as given.
    const std::string& absoluteString() const { return text_; }
    // The scheme in lower case, as schemes ignore case.
    const std::string& scheme() const { return scheme_; }

private:
    URL(std::string text, std::string scheme);
    std::string text_;
    std::string scheme_;
};

}  // namespace NorvAnalytic
