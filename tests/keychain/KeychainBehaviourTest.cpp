#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>
#include <libsecret/secret.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "BuildConfig.h"
#include "keychain/KeychainArchive.h"
#include "keychain/SecretServiceKeychainBackend.h"
#include "support/ScratchKeychain.h"

namespace NorvAnalytic {
namespace {

enum class BackendKind { File, SecretService };

std::string kindName(const ::testing::TestParamInfo<BackendKind>& info) {
    return info.param == BackendKind::File ? "File" : "SecretService";
}

// Removes every item of one schema, so a run leaves nothing in the user's keyring.
void clearSchema(const std::string& schemaName) {
    SecretSchema* schema = secret_schema_new(schemaName.c_str(), SECRET_SCHEMA_NONE, nullptr);
    GHashTable* none = g_hash_table_new(g_str_hash, g_str_equal);
    GError* error = nullptr;
    secret_password_clearv_sync(schema, none, nullptr, &error);
    g_clear_error(&error);
    g_hash_table_unref(none);
    secret_schema_unref(schema);
}

class KeychainBehaviourTest : public ::testing::TestWithParam<BackendKind> {
protected:
    void SetUp() override {
        if (GetParam() == BackendKind::File) {
            scratch_ = std::make_unique<Testing::ScratchKeychain>();
            backend_ = scratch_->backend();
            return;
        }
        if (std::getenv("DBUS_SESSION_BUS_ADDRESS") == nullptr) {
            GTEST_SKIP() << "no D-Bus session bus; run under dbus-run-session with an "
                            "unlocked gnome-keyring to test the Secret Service backend";
        }
        static int run = 0;
        schemaName_ = std::string(SecretServiceKeychainBackend::kDefaultSchemaName) + ".test" +
                      std::to_string(::getpid()) + "_" + std::to_string(++run);
        // The daemon's in-memory collection: nothing of a run outlives the daemon.
        backend_ = std::make_shared<SecretServiceKeychainBackend>(schemaName_, "session");
        KeychainQuery probe;
        probe.account = "probe";
        probe.service = "probe";
        probe.valueData = Data{1};
        if (backend_->add(probe) != errSecSuccess) {
            backend_.reset();
            GTEST_SKIP() << "no Secret Service with an unlocked session collection; start "
                            "gnome-keyring-daemon --unlock --components=secrets first";
        }
        ASSERT_EQ(backend_->remove(probe), errSecSuccess);
        previous_ = Platform::keychainBackend();
        Platform::setKeychainBackend(backend_);
    }

    void TearDown() override {
        if (previous_) {
            Platform::setKeychainBackend(previous_);
            clearSchema(schemaName_);
        }
    }

    KeychainItemAttributes stored(const std::string& key, const std::string& service,
                                  const Text& group = std::nullopt) {
        KeychainQuery query;
        query.account = key;
        query.service = service;
        query.accessGroup = group;
        KeychainItemAttributes attributes;
        EXPECT_EQ(backend_->copyMatching(query, &attributes), errSecSuccess);
        return attributes;
    }

    std::shared_ptr<KeychainBackend> backend_;

private:
    std::unique_ptr<Testing::ScratchKeychain> scratch_;
    std::shared_ptr<KeychainBackend> previous_;
    std::string schemaName_;
};

TEST_P(KeychainBehaviourTest, SavesAddThenUpdateAndAnyBytesComeBackExactly) {
    EXPECT_TRUE(Keychain::saveItem("first", "device_uuid", "NorvAnalyticDeviceUUID", nullptr));
    EXPECT_TRUE(Keychain::saveItem("second", "device_uuid", "NorvAnalyticDeviceUUID", nullptr));
    std::optional<Error> error;
    EXPECT_EQ(Keychain::itemForKey("device_uuid", "NorvAnalyticDeviceUUID", &error), "second");
    EXPECT_FALSE(error.has_value());
    EXPECT_EQ(Keychain::rawDataForKey("device_uuid", "NorvAnalyticDeviceUUID", nullptr),
              KeychainArchive::archivedData("second"));

    const std::string awkward[] = {
        "",
        std::string("nul\0inside", 10),
        "\xff\xfe invalid \xc3\x28 utf-8 \xed\xa0\x80",
        "caf\xc3\xa9 \xf0\x9f\x94\x91",
        std::string(100000, 'x'),
    };
    for (const std::string& value : awkward) {
        ASSERT_TRUE(Keychain::saveItem(value, "user_id", "NorvAnalyticDeviceUUID", nullptr));
        EXPECT_EQ(Keychain::itemForKey("user_id", "NorvAnalyticDeviceUUID", nullptr), value);
    }

    // Key and service both address the item.
    ASSERT_TRUE(Keychain::saveItem("other service", "device_uuid", "Other", nullptr));
    EXPECT_EQ(Keychain::itemForKey("device_uuid", "NorvAnalyticDeviceUUID", nullptr), "second");
    EXPECT_EQ(Keychain::itemForKey("device_uuid", "Other", nullptr), "other service");
}

TEST_P(KeychainBehaviourTest, AccessibilityIsSetOnAddAndUpdateOnlyForItsTwoValues) {
    ASSERT_TRUE(Keychain::saveItem("v", "short", "svc", nullptr));
    EXPECT_EQ(stored("short", "svc").accessible, KeychainItemAccessible::AfterFirstUnlock);

    ASSERT_TRUE(Keychain::saveItem("v", "long", "svc", std::nullopt,
                                   KeychainAccessibilityWhenUnlocked, nullptr));
    EXPECT_EQ(stored("long", "svc").accessible, KeychainItemAccessible::WhenUnlocked);
    ASSERT_TRUE(Keychain::saveItem("v", "long", "svc", std::nullopt,
                                   KeychainAccessibilityAfterFirstUnlock, nullptr));
    EXPECT_EQ(stored("long", "svc").accessible, KeychainItemAccessible::AfterFirstUnlock);
    // Any other value leaves the attribute as it was on update and unset on add.
    ASSERT_TRUE(Keychain::saveItem("w", "long", "svc", std::nullopt,
                                   static_cast<KeychainAccessibility>(2), nullptr));
    EXPECT_EQ(stored("long", "svc").accessible, KeychainItemAccessible::AfterFirstUnlock);
    EXPECT_EQ(Keychain::itemForKey("long", "svc", nullptr), "w");

    ASSERT_TRUE(Keychain::saveItem("v", "unset", "svc", std::nullopt,
                                   static_cast<KeychainAccessibility>(-1), nullptr));
    EXPECT_FALSE(stored("unset", "svc").accessible.has_value());
}

TEST_P(KeychainBehaviourTest, MissingItemsAndDeletes) {
    std::optional<Error> error;
    EXPECT_FALSE(Keychain::itemForKey("token", "api", &error).has_value());
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, errSecItemNotFound);
    EXPECT_EQ(error->localizedDescription,
              "Item with key 'token' for service 'api' could not be found in the keychain.");

    error.reset();
    EXPECT_FALSE(Keychain::deleteItemForKey("token", "api", &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, errSecItemNotFound);
    ASSERT_NE(error->underlyingError, nullptr);
    EXPECT_EQ(error->underlyingError->code, errSecItemNotFound);

    ASSERT_TRUE(Keychain::saveItem("secret", "token", "api", nullptr));
    EXPECT_TRUE(Keychain::deleteItemForKey("token", "api", nullptr));
    EXPECT_FALSE(Keychain::rawDataForKey("token", "api", nullptr).has_value());

    // A save of nil deletes; with nothing stored it fails like the delete.
    ASSERT_TRUE(Keychain::saveItem("secret", "token", "api", nullptr));
    EXPECT_TRUE(Keychain::saveItem(std::nullopt, "token", "api", nullptr));
    EXPECT_FALSE(Keychain::itemForKey("token", "api", nullptr).has_value());
    error.reset();
    EXPECT_FALSE(Keychain::saveItem(std::nullopt, "token", "api", &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->localizedDescription,
              "Could not delete item with key 'token' for service 'api' from the keychain "
              "because it does not exist.");
}

TEST_P(KeychainBehaviourTest, AccessGroupsSeparateItemsInDeviceBuilds) {
    ASSERT_TRUE(Keychain::saveItem("in one", "token", "api", "group.one",
                                   KeychainAccessibilityAfterFirstUnlock, nullptr));
    if constexpr (BuildConfig::kSimulatorBuild) {
        EXPECT_EQ(Keychain::itemForKey("token", "api", "group.two", nullptr), "in one");
        EXPECT_FALSE(stored("token", "api").accessGroup.has_value());
        return;
    }
    EXPECT_EQ(stored("token", "api").accessGroup, "group.one");
    std::optional<Error> error;
    EXPECT_FALSE(Keychain::itemForKey("token", "api", "group.two", &error).has_value());
    EXPECT_EQ(error->code, errSecItemNotFound);
    // No group (nil or empty) matches an item of any group.
    EXPECT_EQ(Keychain::itemForKey("token", "api", nullptr), "in one");
    EXPECT_EQ(Keychain::itemForKey("token", "api", "", nullptr), "in one");

    ASSERT_TRUE(Keychain::saveItem("in two", "token", "api", "group.two",
                                   KeychainAccessibilityAfterFirstUnlock, nullptr));
    EXPECT_EQ(Keychain::itemForKey("token", "api", "group.one", nullptr), "in one");
    EXPECT_EQ(Keychain::itemForKey("token", "api", "group.two", nullptr), "in two");
    EXPECT_TRUE(Keychain::deleteItemForKey("token", "api", "group.one", nullptr));
    EXPECT_FALSE(Keychain::itemForKey("token", "api", "group.one", nullptr).has_value());
    EXPECT_EQ(Keychain::itemForKey("token", "api", "group.two", nullptr), "in two");

    // The nil save drops its group, so it deletes the item of every group.
    ASSERT_TRUE(Keychain::saveItem("in one again", "token", "api", "group.one",
                                   KeychainAccessibilityAfterFirstUnlock, nullptr));
    EXPECT_TRUE(Keychain::saveItem(std::nullopt, "token", "api", "group.one",
                                   KeychainAccessibilityAfterFirstUnlock, nullptr));
    EXPECT_FALSE(Keychain::rawDataForKey("token", "api", nullptr).has_value());
}

TEST_P(KeychainBehaviourTest, ForeignBytesReadRawButNotAsAnItem) {
    KeychainQuery foreign;
    foreign.account = "device_uuid";
    foreign.service = "NorvAnalyticDeviceUUID";
    foreign.valueData = Data{'n', 'o', 't', 0x00, 0xff, 'c', 'b', 'o', 'r'};
    ASSERT_EQ(backend_->add(foreign), errSecSuccess);
    EXPECT_EQ(backend_->add(foreign), errSecDuplicateItem);

    std::optional<Error> error;
    EXPECT_FALSE(Keychain::itemForKey("device_uuid", "NorvAnalyticDeviceUUID", &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, 21);
    EXPECT_TRUE(error->localizedFailureReason.has_value());
    EXPECT_EQ(Keychain::rawDataForKey("device_uuid", "NorvAnalyticDeviceUUID", nullptr),
              foreign.valueData);

    // The unreadable item exists, so a save replaces it through the update path.
    EXPECT_TRUE(Keychain::saveItem("fresh", "device_uuid", "NorvAnalyticDeviceUUID", nullptr));
    EXPECT_EQ(Keychain::itemForKey("device_uuid", "NorvAnalyticDeviceUUID", nullptr), "fresh");
}

TEST_P(KeychainBehaviourTest, BackendAnswersNotFoundForUpdatesAndRemovesOfNothing) {
    KeychainQuery query;
    query.account = "absent";
    query.service = "svc";
    KeychainQuery changes;
    changes.valueData = Data{1, 2, 3};
    EXPECT_EQ(backend_->update(query, changes), errSecItemNotFound);
    EXPECT_EQ(backend_->remove(query), errSecItemNotFound);
    EXPECT_EQ(backend_->copyMatching(query, nullptr), errSecItemNotFound);
}

TEST(SecretServiceKeychainBackendTest, MissingCollectionIsRefusedWithoutAPrompt) {
    if (std::getenv("DBUS_SESSION_BUS_ADDRESS") == nullptr) {
        GTEST_SKIP() << "no D-Bus session bus";
    }
    // Creating the collection would need the user's consent, so the add fails at once.
    SecretServiceKeychainBackend backend(SecretServiceKeychainBackend::kDefaultSchemaName,
                                         "norvanalytic-test-no-such-collection");
    KeychainQuery item;
    item.account = "device_uuid";
    item.service = "NorvAnalyticDeviceUUID.test" + std::to_string(::getpid());
    item.valueData = Data{1, 2, 3};
    EXPECT_EQ(backend.add(item), errSecInteractionNotAllowed);
    EXPECT_EQ(backend.copyMatching(item, nullptr), errSecItemNotFound);
}

INSTANTIATE_TEST_SUITE_P(Backends, KeychainBehaviourTest,
                         ::testing::Values(BackendKind::File, BackendKind::SecretService),
                         kindName);

}  // namespace
}  // namespace NorvAnalytic
