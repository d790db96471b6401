#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/Types.h>

#include <map>
#include <memory>
#include <string>

namespace NorvAnalytic {

// An identifier and an info dictionary ("CFBundleShortVersionString", "CFBundleVersion").
// The SDK registers its own bundle; the host sets the main bundle with its app's values.
class NORVANALYTIC_EXPORT Bundle {
public:
    using InfoDictionary = std::map<std::string, std::string>;

    Bundle(std::string identifier, InfoDictionary info);

    static std::shared_ptr<const Bundle> mainBundle();
    static void setMainBundle(std::shared_ptr<const Bundle> bundle);
    static std::shared_ptr<const Bundle> bundleWithIdentifier(const std::string& identifier);

    Text objectForInfoDictionaryKey(const std::string& key) const;
    const std::string& bundleIdentifier() const { return identifier_; }

private:
    std::string identifier_;
    InfoDictionary info_;
};

}  // namespace NorvAnalytic
