#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sys/wait.h>

#include "keychain/FileKeychainBackend.h"
#include "reporting/DeviceIdentity.h"
#include "support/ChildProcess.h"
#include "support/FixedDevice.h"
#include "support/RecordingLogSink.h"
#include "support/ScratchKeychain.h"

namespace NorvAnalytic {
namespace {

// Counts the writes that reach the real file store underneath.
class CountingBackend final : public KeychainBackend {
public:
    explicit CountingBackend(std::shared_ptr<KeychainBackend> inner) : inner_(std::move(inner)) {}
    OSStatus copyMatching(const KeychainQuery& query, KeychainItemAttributes* result) override {
        return inner_->copyMatching(query, result);
    }
    OSStatus add(const KeychainQuery& attributes) override {
        ++writes;
        return inner_->add(attributes);
    }
    OSStatus update(const KeychainQuery& query, const KeychainQuery& changes) override {
        ++writes;
        return inner_->update(query, changes);
    }
    OSStatus remove(const KeychainQuery& query) override {
        ++writes;
        return inner_->remove(query);
    }
    int writes = 0;

private:
    std::shared_ptr<KeychainBackend> inner_;
};

// Stands in for a keychain that is locked until the first unlock.
class LockedBackend final : public KeychainBackend {
public:
    OSStatus copyMatching(const KeychainQuery&, KeychainItemAttributes*) override {
        return errSecInteractionNotAllowed;
    }
    OSStatus add(const KeychainQuery&) override { return errSecInteractionNotAllowed; }
    OSStatus update(const KeychainQuery&, const KeychainQuery&) override {
        return errSecInteractionNotAllowed;
    }
    OSStatus remove(const KeychainQuery&) override { return errSecInteractionNotAllowed; }
};

Text storedUserId() {
    return Keychain::itemForKey(DeviceIdentity::userIdKey(), DeviceIdentity::service(), nullptr);
}

TEST(Identity, OneUUIDIsMadeAndKeptAcrossProcesses) {
    Testing::ScratchKeychain keychain;
    auto counting = std::make_shared<CountingBackend>(keychain.backend());
    Platform::setKeychainBackend(counting);

    NorvAnalytics::setUUID();
    EXPECT_EQ(counting->writes, 1);
    const std::string uuid = NorvAnalytics::getNorvAnalyticUUID();
    EXPECT_TRUE(std::regex_match(uuid, std::regex("[0-9A-F]{8}-([0-9A-F]{4}-){3}[0-9A-F]{12}")))
        << uuid;
    NorvAnalytics::setUUID();
    EXPECT_EQ(NorvAnalytics::getNorvAnalyticUUID(), uuid);
    EXPECT_EQ(counting->writes, 1);

    // Another process on the same store reads the same UUID.
    const std::filesystem::path answer = keychain.directory() / "child-uuid.txt";
    const int status = Testing::runChildProcess(
        {Testing::selfExecutable(), "--gtest_filter=Identity.ChildReportsUUID"},
        {"NORV_CHILD_KEYCHAIN=" + keychain.path().string(), "NORV_CHILD_ANSWER=" + answer.string()});
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::ifstream in(answer);
    std::string childUUID;
    std::getline(in, childUUID);
    EXPECT_EQ(childUUID, uuid);

    // Bytes that are not an archive read as no UUID: a new one replaces them in place.
    KeychainQuery junk;
    junk.valueData = Data{'j', 'u', 'n', 'k'};
    ASSERT_EQ(keychain.backend()->update(
                  Keychain::_baseQueryDictionaryForKey(DeviceIdentity::deviceUUIDKey(),
                                                       DeviceIdentity::service(), std::nullopt),
                  junk),
              errSecSuccess);
    const std::string replacement = NorvAnalytics::getNorvAnalyticUUID();
    EXPECT_NE(replacement, uuid);
    EXPECT_EQ(NorvAnalytics::getNorvAnalyticUUID(), replacement);
}

// Runs only inside the second process started by the test above.
TEST(Identity, ChildReportsUUID) {
    const char* path = std::getenv("NORV_CHILD_KEYCHAIN");
    const char* answer = std::getenv("NORV_CHILD_ANSWER");
    if (path == nullptr || answer == nullptr) {
        GTEST_SKIP() << "runs as the second process of OneUUIDIsMadeAndKeptAcrossProcesses";
    }
    Platform::setKeychainBackend(std::make_shared<FileKeychainBackend>(path));
    std::ofstream(answer) << NorvAnalytics::getNorvAnalyticUUID() << "\n";
}

TEST(Identity, StoreUserIdIsWrittenOnlyWhenItChangesAndNeverLogged) {
    Testing::RecordingLogSink log;
    Testing::ScratchKeychain keychain;
    auto counting = std::make_shared<CountingBackend>(keychain.backend());
    Platform::setKeychainBackend(counting);
    NorvAnalytics::saveStoreUserID(std::nullopt);
    EXPECT_EQ(storedUserId(), std::nullopt);
    NorvAnalytics::saveStoreUserID(std::string("u-1"));
    NorvAnalytics::saveStoreUserID(std::string("u-1"));
    EXPECT_EQ(storedUserId(), "u-1");
    const int afterFirst = counting->writes;
    NorvAnalytics::saveStoreUserID(std::string("u-1"));
    EXPECT_EQ(counting->writes, afterFirst);
    NorvAnalytics::saveStoreUserID(std::string("u-2"));
    EXPECT_EQ(storedUserId(), "u-2");
    NorvAnalytics::saveStoreUserID(std::nullopt);
    EXPECT_EQ(storedUserId(), std::nullopt);
    // Failures included, the keychain writes nothing to the console.
    Platform::setKeychainBackend(std::make_shared<LockedBackend>());
    NorvAnalytics::saveStoreUserID(std::string("u-3"));
    EXPECT_TRUE(log.lines().empty());
}

TEST(Identity, LockedKeychainGivesAFreshUUIDEachTime) {
    Testing::ScratchKeychain keychain;
    Platform::setKeychainBackend(std::make_shared<LockedBackend>());
    const std::string first = NorvAnalytics::getNorvAnalyticUUID();
    EXPECT_EQ(first.size(), 36U);
    EXPECT_NE(NorvAnalytics::getNorvAnalyticUUID(), first);
}

TEST(Identity, ModelNamesComeFromTheTableOnly) {
    const std::vector<std::pair<std::string, Text>> machines = {
        {"x86_64", "Simulator"},
        {"i386", "Simulator"},
        {"iPhone9,3", "iPhone 7"},
        {"iPhone8,1", "iPhone 6S"},
        {"iPhone6,2", "iPhone 5s"},
        {"iPad3,4", "iPad"},
        {"iPad4,7", "iPad Mini"},
        {"iPad6,7", "iPad Pro (12.9\")"},
        {"iPad6,4", "iPad Pro (9.7\")"},
        {"iPhone10,1", std::nullopt},
        {"iPhone", std::nullopt},
        {"aarch64", std::nullopt},
    };
    for (const auto& [machine, model] : machines) {
        Platform::setDevice(std::make_shared<Testing::FixedDevice>(machine, "1", 1.0F));
        EXPECT_EQ(NorvAnalytics::sharedController().getDeviceModel(), model) << machine;
    }
    Platform::setDevice(nullptr);
    EXPECT_EQ(DeviceIdentity::modelName("iPad6,8")->size(), 16U);
    EXPECT_EQ(DeviceIdentity::modelName("iPad6,3")->size(), 15U);
}

}  // namespace
}  // namespace NorvAnalytic
