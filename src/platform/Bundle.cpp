#include <NorvAnalytic/Bundle.h>

#include <map>
#include <mutex>

#include "BuildConfig.h"

namespace NorvAnalytic {

namespace {

struct Registry {
    std::mutex mutex;
    std::shared_ptr<const Bundle> mainBundle;
    std::map<std::string, std::shared_ptr<const Bundle>> byIdentifier;
};

Registry& registry() {
    static Registry* instance = [] {
        auto* made = new Registry;
        // The SDK's own bundle: its version is what the body reports as "vbf_version".
        auto sdk = std::make_shared<const Bundle>(
            BuildConfig::kSdkBundleIdentifier,
            Bundle::InfoDictionary{{"CFBundleShortVersionString", BuildConfig::kSdkShortVersion},
                                   {"CFBundleVersion", BuildConfig::kSdkBuildNumber}});
        made->byIdentifier.emplace(sdk->bundleIdentifier(), sdk);
        return made;
    }();
    return *instance;
}

}  // namespace

Bundle::Bundle(std::string identifier, InfoDictionary info)
    : identifier_(std::move(identifier)), info_(std::move(info)) {}

std::shared_ptr<const Bundle> Bundle::mainBundle() {
    auto& shared = registry();
    std::lock_guard lock(shared.mutex);
    return shared.mainBundle;
}

void Bundle::setMainBundle(std::shared_ptr<const Bundle> bundle) {
    auto& shared = registry();
    std::lock_guard lock(shared.mutex);
    if (bundle) {
        shared.byIdentifier[bundle->bundleIdentifier()] = bundle;
    }
    shared.mainBundle = std::move(bundle);
}

std::shared_ptr<const Bundle> Bundle::bundleWithIdentifier(const std::string& identifier) {
    auto& shared = registry();
    std::lock_guard lock(shared.mutex);
    auto found = shared.byIdentifier.find(identifier);
    return found == shared.byIdentifier.end() ? nullptr : found->second;
}

Text Bundle::objectForInfoDictionaryKey(const std::string& key) const {
    auto found = info_.find(key);
    if (found == info_.end()) {
        return std::nullopt;
    }
    return found->second;
}

}  // namespace NorvAnalytic
