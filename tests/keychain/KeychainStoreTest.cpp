#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "BuildConfig.h"
#include "keychain/KeychainArchive.h"

namespace NorvAnalytic {
namespace {

const std::string kNotFoundMessage =
    "Item with key 'token' for service 'api' could not be found in the keychain.";
const std::string kNotAllowedMessage =
    "Interaction with key 'token' for service 'api' was not allowed. It is possible that the "
    "item is only accessible when the device is unlocked and this query is happening when the "
    "app is in the background. Double-check your item permissions.";
const std::string kDuplicateMessage =
    "Item with key 'token' for service 'api' already exists in the keychain.";
const std::string kUndefinedMessage =
    "This is a undefined error. Check SecBase.h or Apple's iOS Developer Library for more "
    "information on this Keychain Services error code.";
const std::string kDeleteMissingMessage =
    "Could not delete item with key 'token' for service 'api' from the keychain because it "
    "does not exist.";

// Answers fixed statuses and records what the store asked, for the paths a real keychain
// cannot be driven into (a locked store, an undefined status).
class FakeKeychainBackend final : public KeychainBackend {
public:
    OSStatus copyStatus = errSecItemNotFound;
    OSStatus addStatus = errSecSuccess;
    OSStatus updateStatus = errSecSuccess;
    OSStatus removeStatus = errSecSuccess;
    Data storedValue;

    std::vector<std::string> calls;
    std::vector<KeychainQuery> queries;

    OSStatus copyMatching(const KeychainQuery& query, KeychainItemAttributes* result) override {
        record("copyMatching", query);
        if (copyStatus == errSecSuccess && result != nullptr) {
            result->account = query.account;
            result->service = query.service;
            result->valueData = storedValue;
        }
        return copyStatus;
    }
    OSStatus add(const KeychainQuery& attributes) override {
        record("add", attributes);
        return addStatus;
    }
    OSStatus update(const KeychainQuery& query, const KeychainQuery&) override {
        record("update", query);
        return updateStatus;
    }
    OSStatus remove(const KeychainQuery& query) override {
        record("remove", query);
        return removeStatus;
    }

private:
    void record(const char* call, const KeychainQuery& query) {
        calls.emplace_back(call);
        queries.push_back(query);
    }
};

class KeychainStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        previous_ = Platform::keychainBackend();
        Platform::setKeychainBackend(fake_);
    }
    void TearDown() override { Platform::setKeychainBackend(previous_); }

    FakeKeychainBackend& fake() { return *fake_; }

private:
    std::shared_ptr<FakeKeychainBackend> fake_ = std::make_shared<FakeKeychainBackend>();
    std::shared_ptr<KeychainBackend> previous_;
};

void expectError(const std::optional<Error>& error, std::int64_t code,
                 const std::string& description) {
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain, BuildConfig::kKeychainErrorDomain);
    EXPECT_EQ(error->code, code);
    EXPECT_EQ(error->localizedDescription, description);
    EXPECT_FALSE(error->localizedFailureReason.has_value());
    EXPECT_EQ(error->underlyingError, nullptr);
}

void expectInvalidArgument(const std::function<void()>& call, const std::string& reason) {
    try {
        call();
        ADD_FAILURE() << "no exception, expected: " << reason;
    } catch (const std::invalid_argument& exception) {
        EXPECT_EQ(std::string(exception.what()), reason);
    }
}

TEST_F(KeychainStoreTest, EmptyKeyOrServiceRaisesWithTheCheckingOperationsName) {
    const std::string save =
        "+[Keychain saveItem:forKey:forService:inAccessGroup:withAccessibility:error:]";
    const std::string remove = "+[Keychain deleteItemForKey:forService:inAccessGroup:error:]";
    const std::string lookup =
        "+[Keychain _itemAttributesAndDataForKey:forService:inAccessGroup:error:]";
    std::optional<Error> error;

    expectInvalidArgument(
        [&] { Keychain::saveItem("v", "", "", "g", KeychainAccessibilityWhenUnlocked, &error); },
        save + " key argument cannot be empty");
    expectInvalidArgument([&] { Keychain::saveItem("v", std::nullopt, "api", &error); },
                          save + " key argument cannot be empty");
    expectInvalidArgument([&] { Keychain::saveItem("v", "token", "", &error); },
                          save + " service argument cannot be empty");
    expectInvalidArgument([&] { Keychain::saveItem(std::nullopt, "token", std::nullopt, &error); },
                          save + " service argument cannot be empty");
    expectInvalidArgument([&] { Keychain::deleteItemForKey("", "api", &error); },
                          remove + " key argument cannot be empty");
    expectInvalidArgument([&] { Keychain::deleteItemForKey("token", "", "g", &error); },
                          remove + " service argument cannot be empty");
    // The reads do not check for themselves; the lookup under them does.
    expectInvalidArgument([&] { Keychain::itemForKey("", "", &error); },
                          lookup + " key argument cannot be empty");
    expectInvalidArgument([&] { Keychain::rawDataForKey("token", std::nullopt, &error); },
                          lookup + " service argument cannot be empty");
    expectInvalidArgument([&] { Keychain::itemForKey(std::nullopt, "api", "g", nullptr); },
                          lookup + " key argument cannot be empty");

    EXPECT_TRUE(fake().calls.empty());
    EXPECT_FALSE(error.has_value());
}

TEST_F(KeychainStoreTest, StatusesMapToTheirMessages) {
    EXPECT_STREQ(BrixKeychainErrorDomain, BuildConfig::kKeychainErrorDomain);
    expectError(Keychain::_errorForResultCode(errSecInteractionNotAllowed, "token", "api"), -25308,
                kNotAllowedMessage);
    expectError(Keychain::_errorForResultCode(errSecItemNotFound, "token", "api"), -25300,
                kNotFoundMessage);
    expectError(Keychain::_errorForResultCode(errSecDuplicateItem, "token", "api"), -25299,
                kDuplicateMessage);
    expectError(Keychain::_errorForResultCode(-34, "token", "api"), -34, kUndefinedMessage);
    expectError(Keychain::_errorForResultCode(1, "token", "api"), 1, kUndefinedMessage);
    expectError(Keychain::_errorForResultCode(INT32_MIN, "token", "api"), INT32_MIN,
                kUndefinedMessage);
}

TEST_F(KeychainStoreTest, LockedKeychainFailsReadsSavesAndDeletesWithItsStatus) {
    fake().copyStatus = errSecInteractionNotAllowed;
    fake().removeStatus = errSecInteractionNotAllowed;

    std::optional<Error> error;
    EXPECT_FALSE(Keychain::itemForKey("token", "api", &error).has_value());
    expectError(error, -25308, kNotAllowedMessage);
    error.reset();
    EXPECT_FALSE(Keychain::rawDataForKey("token", "api", "group", &error).has_value());
    expectError(error, -25308, kNotAllowedMessage);

    // The save stops at its lookup and hands that error on unchanged: nothing is written.
    fake().calls.clear();
    error.reset();
    EXPECT_FALSE(Keychain::saveItem("value", "token", "api", &error));
    expectError(error, -25308, kNotAllowedMessage);
    EXPECT_EQ(fake().calls, std::vector<std::string>{"copyMatching"});
    fake().calls.clear();
    EXPECT_FALSE(Keychain::saveItem("value", "token", "api", nullptr));
    EXPECT_EQ(fake().calls, std::vector<std::string>{"copyMatching"});

    // Only a not-found delete is wrapped; a locked one reports the mapped error itself.
    error.reset();
    EXPECT_FALSE(Keychain::deleteItemForKey("token", "api", &error));
    expectError(error, -25308, kNotAllowedMessage);
    EXPECT_FALSE(Keychain::deleteItemForKey("token", "api", nullptr));
}

TEST_F(KeychainStoreTest, AddAndUpdateFailuresReportTheirStatus) {
    std::optional<Error> error;
    fake().copyStatus = errSecItemNotFound;
    fake().addStatus = errSecDuplicateItem;
    EXPECT_FALSE(Keychain::saveItem("value", "token", "api", &error));
    expectError(error, -25299, kDuplicateMessage);

    fake().copyStatus = errSecSuccess;
    fake().updateStatus = -34;
    error.reset();
    EXPECT_FALSE(Keychain::saveItem("value", "token", "api", &error));
    expectError(error, -34, kUndefinedMessage);
    EXPECT_FALSE(Keychain::saveItem("value", "token", "api", nullptr));

    fake().updateStatus = errSecSuccess;
    error = Keychain::_errorForResultCode(7, "earlier", "call");
    EXPECT_TRUE(Keychain::saveItem("value", "token", "api", &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, 7) << "a successful call must leave the slot alone";
}

TEST_F(KeychainStoreTest, DeleteOfAMissingItemWrapsTheNotFoundError) {
    fake().removeStatus = errSecItemNotFound;
    std::optional<Error> error;
    EXPECT_FALSE(Keychain::deleteItemForKey("token", "api", "group", &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain, BuildConfig::kKeychainErrorDomain);
    EXPECT_EQ(error->code, -25300);
    EXPECT_EQ(error->localizedDescription, kDeleteMissingMessage);
    ASSERT_NE(error->underlyingError, nullptr);
    expectError(*error->underlyingError, -25300, kNotFoundMessage);

    // A nil save is the two-argument delete: the access group it was given is dropped.
    fake().queries.clear();
    error.reset();
    EXPECT_FALSE(Keychain::saveItem(std::nullopt, "token", "api", "group",
                                    KeychainAccessibilityWhenUnlocked, &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->localizedDescription, kDeleteMissingMessage);
    ASSERT_EQ(fake().calls.back(), "remove");
    EXPECT_FALSE(fake().queries.back().accessGroup.has_value());
}

TEST_F(KeychainStoreTest, QueriesCarryTheAccessGroupOnlyOnDevices) {
    const KeychainQuery withGroup = Keychain::_baseQueryDictionaryForKey("token", "api", "group");
    EXPECT_EQ(withGroup.account, "token");
    EXPECT_EQ(withGroup.service, "api");
    EXPECT_FALSE(withGroup.matchLimitOne || withGroup.returnAttributes || withGroup.returnData);
    if constexpr (BuildConfig::kSimulatorBuild) {
        EXPECT_FALSE(withGroup.accessGroup.has_value());
    } else {
        EXPECT_EQ(withGroup.accessGroup, "group");
    }
    EXPECT_FALSE(Keychain::_baseQueryDictionaryForKey("token", "api", "").accessGroup);
    EXPECT_FALSE(Keychain::_baseQueryDictionaryForKey("token", "api", std::nullopt).accessGroup);

    Keychain::rawDataForKey("token", "api", "group", nullptr);
    ASSERT_EQ(fake().queries.size(), 1U);
    const KeychainQuery& lookup = fake().queries.front();
    EXPECT_TRUE(lookup.matchLimitOne && lookup.returnAttributes && lookup.returnData);
    EXPECT_EQ(lookup.accessGroup, withGroup.accessGroup);
}

TEST_F(KeychainStoreTest, UndecodableBytesFailTheItemReadButNotTheRawRead) {
    Data truncated = KeychainArchive::archivedData("a longer value than fits");
    truncated.resize(truncated.size() - 3);
    const std::vector<Data> foreign = {
        {'p', 'l', 'a', 'i', 'n'},
        {},
        truncated,
        // Our prefix followed by a CBOR text string rather than a byte string.
        {'N', 'V', 'K', 0x01, 0x62, 'h', 'i'},
    };
    fake().copyStatus = errSecSuccess;
    for (const Data& bytes : foreign) {
        fake().storedValue = bytes;
        std::optional<Error> error;
        EXPECT_FALSE(Keychain::itemForKey("token", "api", &error).has_value());
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->domain, BuildConfig::kKeychainErrorDomain);
        EXPECT_EQ(error->code, 21);
        EXPECT_FALSE(error->localizedDescription.has_value());
        ASSERT_TRUE(error->localizedFailureReason.has_value());
        EXPECT_FALSE(error->localizedFailureReason->empty());
        EXPECT_FALSE(Keychain::itemForKey("token", "api", nullptr).has_value());

        error.reset();
        EXPECT_EQ(Keychain::rawDataForKey("token", "api", &error), bytes);
        EXPECT_FALSE(error.has_value());
    }
    fake().storedValue = truncated;
    std::optional<Error> error;
    Keychain::itemForKey("token", "api", &error);
    ASSERT_TRUE(error && error->localizedFailureReason);
    EXPECT_NE(error->localizedFailureReason->find("CBOR"), std::string::npos)
        << *error->localizedFailureReason;
}

}  // namespace
}  // namespace NorvAnalytic
