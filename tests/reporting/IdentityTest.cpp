#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "events/DeviceIdentity.h"
#include "support/Eventually.h"
#include "support/FakeKeychainBackend.h"
#include "support/RecordingLogSink.h"

namespace NorvAnalytic {
namespace {

Text stored(const Text& key) {
    return Keychain::itemForKey(key, DeviceIdentity::service(), nullptr);
}

TEST(Identity, OneUUIDIsMadeKeptAndRepairedAndTheUserIdFollowsTheHost) {
    Testing::RecordingLogSink log;
    auto keychain = std::make_shared<Testing::FakeKeychainBackend>();
    Platform::setKeychainBackend(keychain);
    NorvAnalytics::setUUID();
    const std::string uuid = NorvAnalytics::getNorvAnalyticUUID();
    EXPECT_EQ(stored(DeviceIdentity::deviceUUIDKey()), uuid);
    NorvAnalytics::setUUID();
    EXPECT_EQ(NorvAnalytics::getNorvAnalyticUUID(), uuid);

    // Bytes that are not an archive read as no UUID: a new one replaces them in place.
    KeychainQuery junk;
    junk.valueData = Data{'j', 'u', 'n', 'k'};
    ASSERT_EQ(keychain->update(
                  Keychain::_baseQueryDictionaryForKey(DeviceIdentity::deviceUUIDKey(),
                                                       DeviceIdentity::service(), std::nullopt),
                  junk),
              errSecSuccess);
    const std::string replacement = NorvAnalytics::getNorvAnalyticUUID();
    EXPECT_NE(replacement, uuid);
    EXPECT_EQ(stored(DeviceIdentity::deviceUUIDKey()), replacement);

    for (const Text& userId : {Text("u-1"), Text("u-2"), Text(std::nullopt)}) {
        NorvAnalytics::saveStoreUserID(userId);
        EXPECT_EQ(stored(DeviceIdentity::userIdKey()), userId);
    }
    // The same id again is only looked up, never written.
    NorvAnalytics::saveStoreUserID("u-2");
    const std::size_t reads = keychain->copyMatchingCalls();
    NorvAnalytics::saveStoreUserID("u-2");
    EXPECT_EQ(keychain->copyMatchingCalls(), reads + 1);

    // A locked keychain: one UUID for the process, told once to diagnostics, never the console.
    std::vector<DiagnosticLevel> reports;
    Platform::setDiagnosticsSink([&](DiagnosticLevel level, auto&) { reports.push_back(level); });
    keychain->failWith(errSecInteractionNotAllowed);
    NorvAnalytics::saveStoreUserID("u-3");
    const std::string first = NorvAnalytics::getNorvAnalyticUUID();
    EXPECT_NE(first, replacement);
    EXPECT_EQ(NorvAnalytics::getNorvAnalyticUUID(), first);
    Platform::setDiagnosticsSink(nullptr);
    EXPECT_EQ(reports, std::vector<DiagnosticLevel>(2, DiagnosticLevel::Error));
    EXPECT_EQ(log.lines(), std::vector<std::string>{});

    // Once the store answers again, the process takes the UUID it holds.
    keychain->failWith(std::nullopt);
    Testing::eventually([&] { return NorvAnalytics::getNorvAnalyticUUID() != first; });
    EXPECT_EQ(NorvAnalytics::getNorvAnalyticUUID(), replacement);
    Platform::setKeychainBackend(nullptr);
}

}  // namespace
}  // namespace NorvAnalytic
