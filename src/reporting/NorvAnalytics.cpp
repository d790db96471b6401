#include <NorvAnalytic/NorvAnalytics.h>

#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytic.h>
#include <NorvAnalytic/Platform.h>

#include <array>
#include <utility>

#include "BuildConfig.h"

extern "C" {
const double NorvAnalyticVersionNumber = 1.0;
const unsigned char NorvAnalyticVersionString[] =
    "@(#)PROGRAM:NorvAnalytic  PROJECT:NorvAnalytic-1\n";
}

namespace NorvAnalytic {

NorvAnalytics& NorvAnalytics::sharedController() {
    // Made once, never destroyed: answers and timers may still reach it while the host exits.
    static NorvAnalytics* controller = new NorvAnalytics;
    return *controller;
}

NorvAnalytics& NorvAnalytics::initWithKey(const Text& key) {
    NorvAnalytics& controller = sharedController();
    controller.setKey(key);
    controller.setUrlString(std::string(BuildConfig::kSecureCollectionUrl));
    setUUID();
    controller.setIsEnabled(true);
    checkUpdates(false);
    // Every start adds a timer and leaves the earlier ones running: each start means one more
    // resend per second, which the server side has always seen.
    controller.setTimer(MainQueue::main().scheduledTimer(
        std::chrono::duration<double>(1.0), true,
        [] { NorvAnalytics::sharedController().checkEvents(); }));
    return controller;
}

void NorvAnalytics::setSecureUrl(bool secure) {
    sharedController().setUrlString(std::string(secure ? BuildConfig::kSecureCollectionUrl
                                                       : BuildConfig::kPlainCollectionUrl));
}

void NorvAnalytics::setLogLevel(std::int32_t logLevel) {
    NorvAnalytics& controller = sharedController();
    std::lock_guard lock(controller.mutex_);
    controller.logLevel_ = logLevel;
}

void NorvAnalytics::checkUpdates(bool checkUpdates) {
    NorvAnalytics& controller = sharedController();
    std::lock_guard lock(controller.mutex_);
    controller.checkUpdates_ = checkUpdates;
}

void NorvAnalytics::print(const std::string& message) {
    Platform::log("NorvAnalytic Log :\n " + message);
}

Text NorvAnalytics::setTypeId(std::int32_t index) {
    static constexpr std::array<const char*, 17> kTypeIds = {
        "1", "2", "3", "4", "5", "6", "7", "8", "15",
        "16", "17", "18", "19", "20", "21", "22", "23"};
    const auto slot = static_cast<std::uint32_t>(index);
    if (slot >= kTypeIds.size()) {
        return std::nullopt;
    }
    return std::string(kTypeIds[slot]);
}

std::string NorvAnalytics::getTypeName(const Text& typeId) {
    // "19" has an index but no name, and the server reads the names as they are spelled here.
    static constexpr std::array<std::pair<const char*, const char*>, 16> kNames = {{
        {"1", "Response Time"},
        {"2", "App Open"},
        {"3", "App Close"},
        {"4", "Logout Timeout"},
        {"5", "User Login"},
        {"6", "User Logout"},
        {"7", "Page Open"},
        {"8", "Page Close"},
        {"15", "User can not login"},
        {"16", "Data not retreived"},
        {"17", "Bluetooth status"},
        {"18", "Location service status"},
        {"20", "External Accessory Battery low"},
        {"21", "External Accessory Battery status"},
        {"22", "Onesignal player id "},
        {"23", "Device custom name"},
    }};
    if (!typeId) {
        return "";
    }
    for (const auto& [id, name] : kNames) {
        if (*typeId == id) {
            return name;
        }
    }
    return "";
}

Text NorvAnalytics::key() const {
    std::lock_guard lock(mutex_);
    return key_;
}

void NorvAnalytics::setKey(const Text& key) {
    std::lock_guard lock(mutex_);
    key_ = key;
}

Text NorvAnalytics::urlString() const {
    std::lock_guard lock(mutex_);
    return urlString_;
}

void NorvAnalytics::setUrlString(const Text& urlString) {
    std::lock_guard lock(mutex_);
    urlString_ = urlString;
}

bool NorvAnalytics::isEnabled() const {
    std::lock_guard lock(mutex_);
    return isEnabled_;
}

void NorvAnalytics::setIsEnabled(bool isEnabled) {
    std::lock_guard lock(mutex_);
    isEnabled_ = isEnabled;
}

bool NorvAnalytics::checkUpdates() const {
    std::lock_guard lock(mutex_);
    return checkUpdates_;
}

std::int64_t NorvAnalytics::logLevel() const {
    std::lock_guard lock(mutex_);
    return logLevel_;
}

std::shared_ptr<Timer> NorvAnalytics::timer() const {
    std::lock_guard lock(mutex_);
    return timer_;
}

void NorvAnalytics::setTimer(std::shared_ptr<Timer> timer) {
    std::lock_guard lock(mutex_);
    timer_ = std::move(timer);
}

std::shared_ptr<AlertController> NorvAnalytics::alertController() const {
    std::lock_guard lock(mutex_);
    return alertController_;
}

void NorvAnalytics::setAlertController(std::shared_ptr<AlertController> alertController) {
    std::lock_guard lock(mutex_);
    alertController_ = std::move(alertController);
}

}  // namespace NorvAnalytic
