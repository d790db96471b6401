#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libsecret/secret.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "BuildConfig.h"
#include "facade/IdentityErasure.h"
#include "keychain/FileKeychainBackend.h"
#include "keychain/KeychainItemCache.h"
#include "keychain/SecretServiceKeychainBackend.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/FakeKeychainBackend.h"
#include "support/FilesHolding.h"
#include "support/ScratchDirectory.h"
#include "support/ThreadList.h"

namespace NorvAnalytic {
namespace {

namespace fs = std::filesystem;

const std::string kNotFound =
    "Item with key 'token' for service 'api' could not be found in the keychain.";
const std::string kNotAllowed =
    "Interaction with key 'token' for service 'api' was not allowed. It is possible that the "
    "item is only accessible when the device is unlocked and this query is happening when the "
    "app is in the background. Double-check your item permissions.";

void expectError(const std::optional<Error>& error, std::int64_t code, const Text& text) {
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain, BrixKeychainErrorDomain);
    EXPECT_EQ(error->code, code);
    EXPECT_EQ(error->localizedDescription, text);
}

KeychainQuery query(const std::string& key, std::optional<Data> bytes = std::nullopt) {
    return {key, "api", std::nullopt, std::nullopt, std::move(bytes)};
}

using Testing::ScratchDirectory;

// The file keychain at file in the scratch directory, installed as the store.
std::shared_ptr<KeychainBackend> fileKeychain(const ScratchDirectory& scratch,
                                              const std::string& file = "keychain.sqlite") {
    auto backend = KeychainBackend::makeFileBackend(scratch.path() / file);
    Platform::setKeychainBackend(backend);
    return backend;
}

// Every line of the files in directory whose names start with prefix.
std::vector<std::string> linesOf(const fs::path& directory, const std::string& prefix) {
    std::vector<std::string> lines;
    for (const auto& entry : fs::directory_iterator(directory)) {
        std::ifstream in(entry.path());
        for (std::string line; entry.path().filename().string().starts_with(prefix) &&
                               std::getline(in, line);) {
            lines.push_back(line);
        }
    }
    return lines;
}

// The Secret Service under a schema of its own per call, in the daemon's in-memory
// collection, so that no run sees another's items; null when there is none to reach.
std::shared_ptr<KeychainBackend> secretService() {
    static int run = 0;
    auto backend = std::make_shared<SecretServiceKeychainBackend>(
        "com.norvanalytic.test" + std::to_string(::getpid()) + "." + std::to_string(++run),
        "session");
    return backend->remove(query("probe")) == errSecItemNotFound ? backend : nullptr;
}

// Both real stores keep items the same way.
class KeychainContractTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        backend_ = GetParam() == "File" ? fileKeychain(scratch_) : secretService();
        if (!backend_) {
            GTEST_SKIP() << "no Secret Service: run under dbus-run-session";
        }
        Platform::setKeychainBackend(backend_);
    }

    KeychainItemAttributes stored(const std::string& key) {
        KeychainItemAttributes attributes;
        EXPECT_EQ(backend_->copyMatching(query(key), &attributes), errSecSuccess);
        return attributes;
    }

    ScratchDirectory scratch_;
    std::shared_ptr<KeychainBackend> backend_;
};

TEST_P(KeychainContractTest, SavesReadsAndDeletesKeepingEveryByte) {
    std::optional<Error> error;
    EXPECT_FALSE(Keychain::itemForKey("token", "api", &error).has_value());
    expectError(error, errSecItemNotFound, kNotFound);
    // A nil save is a delete, and hands on the delete's error.
    EXPECT_FALSE(Keychain::saveItem(std::nullopt, "token", "api", &error));
    expectError(error, errSecItemNotFound,
                "Could not delete item with key 'token' for service 'api' from the keychain "
                "because it does not exist.");
    ASSERT_NE(error->underlyingError, nullptr);
    expectError(*error->underlyingError, errSecItemNotFound, kNotFound);

    error = Keychain::_errorForResultCode(7, "earlier", "call");
    for (const std::string& value :
         {std::string("first"), std::string(), std::string("nul\0inside", 10),
          std::string("\xff\xfe invalid \xc3\x28 utf-8 \xed\xa0\x80"), std::string(100000, 'x')}) {
        ASSERT_TRUE(Keychain::saveItem(value, "token", "api", &error));
        EXPECT_EQ(Keychain::itemForKey("token", "api", &error), value);
    }
    EXPECT_EQ(error.value_or(Error{}).code, 7) << "a call that succeeds leaves the error slot";
    // Another key is the accessibility case's business.
    ASSERT_TRUE(Keychain::saveItem("other service", "token", "other", nullptr));
    EXPECT_EQ(Keychain::itemForKey("token", "api", nullptr), std::string(100000, 'x'));

    EXPECT_TRUE(Keychain::deleteItemForKey("token", "api", nullptr));
    EXPECT_EQ(backend_->update(query("token"), query("token", Data{1})), errSecItemNotFound);
}

TEST_P(KeychainContractTest, OnlyTheTwoAccessibilitiesAreSetOnAddAndOnUpdate) {
    using enum KeychainItemAccessible;
    const std::pair<KeychainAccessibility, std::optional<KeychainItemAccessible>> rows[] = {
        {KeychainAccessibilityWhenUnlocked, WhenUnlocked},
        {KeychainAccessibilityAfterFirstUnlock, AfterFirstUnlock},
        {static_cast<KeychainAccessibility>(2), std::nullopt}};
    ASSERT_TRUE(Keychain::saveItem("v", "short", "api", nullptr));
    EXPECT_EQ(stored("short").accessible, AfterFirstUnlock) << "the short save";
    // Each row's update changes what the one before left, or, unset, leaves it.
    for (const auto& [accessibility, expected] : rows) {
        const std::string added = "added" + std::to_string(accessibility);
        ASSERT_TRUE(Keychain::saveItem("v", added, "api", std::nullopt, accessibility, nullptr));
        EXPECT_EQ(stored(added).accessible, expected) << added;
        ASSERT_TRUE(Keychain::saveItem("w", "short", "api", std::nullopt, accessibility, nullptr));
        EXPECT_EQ(stored("short").accessible, expected.value_or(AfterFirstUnlock)) << accessibility;
    }
}

TEST_P(KeychainContractTest, AccessGroupsSeparateItemsInDeviceBuilds) {
    const auto save = [](const Text& item, const Text& group) {
        return Keychain::saveItem(item, "token", "api", group,
                                  KeychainAccessibilityAfterFirstUnlock, nullptr);
    };
    if constexpr (BuildConfig::kSimulatorBuild) {
        GTEST_SKIP() << "simulator builds have no access groups";
    }
    ASSERT_TRUE(save("in one", "group.one"));
    EXPECT_EQ(stored("token").accessGroup, "group.one");
    EXPECT_FALSE(Keychain::itemForKey("token", "api", "group.two", nullptr).has_value());
    // No group, nil or empty, matches the item of any group.
    EXPECT_EQ(Keychain::itemForKey("token", "api", nullptr), "in one");
    EXPECT_EQ(Keychain::itemForKey("token", "api", "", nullptr), "in one");
    ASSERT_TRUE(save("in two", "group.two"));
    EXPECT_TRUE(Keychain::deleteItemForKey("token", "api", "group.one", nullptr));
    EXPECT_EQ(Keychain::itemForKey("token", "api", "group.two", nullptr), "in two");
    // A nil save drops its group, so it deletes the item of every group.
    ASSERT_TRUE(save("in one again", "group.one"));
    EXPECT_TRUE(save(std::nullopt, "group.one"));
    EXPECT_FALSE(Keychain::rawDataForKey("token", "api", nullptr).has_value());
}

TEST_P(KeychainContractTest, ForeignBytesReadRawButNotAsAnItem) {
    // Not ours, empty, our marker before a byte string cut short and before a text string.
    const Data foreign[] = {{'n', 'o', 't', 0, 0xff},
                            {},
                            {'N', 'V', 'K', 1, 0x58, 32, 'a'},
                            {'N', 'V', 'K', 1, 0x61, 'h'}};
    for (const Data& bytes : foreign) {
        const std::string key = "foreign" + std::to_string(bytes.size());
        ASSERT_EQ(backend_->add(query(key, bytes)), errSecSuccess);
        std::optional<Error> error;
        EXPECT_FALSE(Keychain::itemForKey(key, "api", &error).has_value());
        expectError(error, 21, std::nullopt);
        EXPECT_FALSE(error->localizedFailureReason.value_or("").empty());
        EXPECT_EQ(Keychain::rawDataForKey(key, "api", nullptr), bytes);
    }
    EXPECT_EQ(backend_->add(query("foreign0")), errSecDuplicateItem);
    // The unreadable item exists, so a save replaces it.
    EXPECT_TRUE(Keychain::saveItem("fresh", "foreign0", "api", nullptr));
    EXPECT_EQ(Keychain::itemForKey("foreign0", "api", nullptr), "fresh");
}

// A save's lookup and write are one step: a save never meets another thread's add or delete.
TEST_P(KeychainContractTest, ThreadsSavingAndDeletingOneItemLoseNoSave) {
    std::vector<std::jthread> writers;
    for (int writer = 0; writer < 4; ++writer) {
        writers.emplace_back([] {
            for (int round = 0; round < 25; ++round) {
                EXPECT_TRUE(Keychain::saveItem("v", "token", "api", nullptr));
                Keychain::deleteItemForKey("token", "api", nullptr);
            }
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Local, KeychainContractTest, ::testing::Values("File"));
INSTANTIATE_TEST_SUITE_P(System, KeychainContractTest, ::testing::Values("SecretService"));

// Not found and not allowed are checked where the stores answer them.
TEST(KeychainTest, OtherStatusesMapToTheirFixedMessagesAndGroupsOnlyReachDeviceBuilds) {
    expectError(Keychain::_errorForResultCode(errSecDuplicateItem, "token", "api"),
                errSecDuplicateItem,
                "Item with key 'token' for service 'api' already exists in the keychain.");
    expectError(Keychain::_errorForResultCode(INT32_MIN, "token", "api"), INT32_MIN,
                "This is a undefined error. Check SecBase.h or Apple's iOS Developer Library for "
                "more information on this Keychain Services error code.");
    EXPECT_EQ(Keychain::_baseQueryDictionaryForKey("k", "s", "g").accessGroup,
              BuildConfig::kSimulatorBuild ? Text() : Text("g"));
}

TEST(KeychainTest, EmptyKeyOrServiceRaisesWithTheCheckingOperationsName) {
    const auto fake = std::make_shared<Testing::FakeKeychainBackend>();
    Platform::setKeychainBackend(fake);
    // The reads do not check for themselves; the lookup under them does.
    const std::pair<void (*)(const Text&, const Text&), std::string> operations[] = {
        {[](auto& key, auto& service) { Keychain::saveItem(std::nullopt, key, service, nullptr); },
         "+[Keychain saveItem:forKey:forService:inAccessGroup:withAccessibility:error:] "},
        {[](auto& key, auto& service) { Keychain::deleteItemForKey(key, service, "g", nullptr); },
         "+[Keychain deleteItemForKey:forService:inAccessGroup:error:] "},
        {[](auto& key, auto& service) { Keychain::itemForKey(key, service, nullptr); },
         "+[Keychain _itemAttributesAndDataForKey:forService:inAccessGroup:error:] "}};
    const std::tuple<Text, Text, std::string> arguments[] = {
        {"", "", "key"}, {std::nullopt, "api", "key"}, {"t", "", "service"}, {"t", {}, "service"}};
    for (const auto& [call, name] : operations) {
        for (const auto& [key, service, empty] : arguments) {
            EXPECT_THAT([&] { call(key, service); },
                        ::testing::ThrowsMessage<std::invalid_argument>(
                            name + empty + " argument cannot be empty"));
        }
    }
    EXPECT_EQ(fake->copyMatchingCalls(), 0U);
}

TEST(KeychainTest, AStoreThatCannotBeOpenedFailsEveryCallAsLockedAndADamagedOneStartsAnew) {
    const ScratchDirectory scratch;
    std::ofstream(scratch.path() / "plain-file") << "in the way";
    const auto backend = fileKeychain(scratch, "plain-file/keychain.sqlite");
    std::optional<Error> read, save, remove;
    EXPECT_FALSE(Keychain::itemForKey("token", "api", &read).has_value());
    expectError(read, errSecInteractionNotAllowed, kNotAllowed);
    // The save stops at its lookup and hands that error on as it is.
    EXPECT_FALSE(Keychain::saveItem("value", "token", "api", &save));
    expectError(save, errSecInteractionNotAllowed, kNotAllowed);
    // Only a missing item's delete is wrapped.
    EXPECT_FALSE(Keychain::deleteItemForKey("token", "api", &remove));
    expectError(remove, errSecInteractionNotAllowed, kNotAllowed);
    EXPECT_EQ(backend->add(query("token")), errSecInteractionNotAllowed);

    std::vector<DiagnosticLevel> reports;
    Platform::setDiagnosticsSink([&](DiagnosticLevel level, auto&) { reports.push_back(level); });
    std::ofstream(scratch.path() / "keychain.sqlite") << std::string(8192, 'z');
    fileKeychain(scratch);
    EXPECT_TRUE(Keychain::saveItem("value", "token", "api", nullptr));
    Platform::setDiagnosticsSink(nullptr);
    EXPECT_EQ(reports, std::vector<DiagnosticLevel>{DiagnosticLevel::Error});
    EXPECT_EQ(linesOf(scratch.path(), "keychain.sqlite.corrupt-"),
              std::vector<std::string>{std::string(8192, 'z')});
}

// Neither a deleted item nor any value the identity ever had leaves a byte behind in the
// keychain's directory, not even one an older writer replaced without overwriting it.
TEST(FileKeychainBackendTest, DeletedItemsAndAnErasedIdentityLeaveNoByteInTheDirectory) {
    const ScratchDirectory scratch;
    fileKeychain(scratch);
    const std::string secret = "A-SECRET-THE-HOST-DELETED";
    const std::string oldUserId = "AN-OLD-USER-ID-SHORTER-THAN-ITS-SUCCESSOR";
    ASSERT_TRUE(Keychain::saveItem(oldUserId, "user_id", "NorvAnalyticDeviceUUID", nullptr));
    // Kept beside it, so that no later delete's overwriting reaches into the old id's space.
    ASSERT_TRUE(Keychain::saveItem("kept", "keeper", "api", nullptr));
    ASSERT_TRUE(Keychain::saveItem(secret, "token", "api", nullptr));
    sqlite3* olderWriter = nullptr;
    ASSERT_EQ(sqlite3_open((scratch.path() / "keychain.sqlite").c_str(), &olderWriter), SQLITE_OK);
    const int replaced =
        sqlite3_exec(olderWriter,
                     "PRAGMA secure_delete = OFF;"
                     "UPDATE items SET value = zeroblob(200) WHERE account = 'user_id';"
                     "PRAGMA wal_checkpoint(TRUNCATE)",
                     nullptr, nullptr, nullptr);
    sqlite3_close(olderWriter);
    ASSERT_EQ(replaced, SQLITE_OK);
    ASSERT_FALSE(Testing::filesHolding(scratch.path(), oldUserId).empty());

    ASSERT_TRUE(Keychain::deleteItemForKey("token", "api", nullptr));
    EXPECT_EQ(Testing::filesHolding(scratch.path(), secret), std::vector<fs::path>{});
    eraseDeviceIdentity();
    EXPECT_EQ(Testing::filesHolding(scratch.path(), oldUserId), std::vector<fs::path>{});
    EXPECT_EQ(Keychain::rawDataForKey("user_id", "NorvAnalyticDeviceUUID", nullptr), std::nullopt);
}

TEST(SystemKeychainTest, AFailedAddFailsTheSave) {
    if (!secretService()) {
        GTEST_SKIP() << "no Secret Service";
    }
    // Creating a missing collection would need the user's consent, so its add is refused.
    Platform::setKeychainBackend(std::make_shared<SecretServiceKeychainBackend>(
        SecretServiceKeychainBackend::kDefaultSchemaName, "norvanalytic-no-such-collection"));
    std::optional<Error> error;
    EXPECT_FALSE(Keychain::saveItem("value", "token", "api", &error));
    expectError(error, errSecInteractionNotAllowed, kNotAllowed);
}

TEST(FileKeychainBackendTest, DefaultPathFollowsXdgDataHome) {
    const std::string savedHome = std::getenv("HOME") ? std::getenv("HOME") : "/";
    ::setenv("HOME", "/home/someone", 1);
    // A relative XDG_DATA_HOME is invalid and ignored.
    const std::pair<const char*, std::string> rows[] = {
        {"/data/xdg", "/data/xdg"},
        {"relative/dir", "/home/someone/.local/share"},
        {nullptr, "/home/someone/.local/share"}};
    for (const auto& [xdg, expected] : rows) {
        xdg ? ::setenv("XDG_DATA_HOME", xdg, 1) : ::unsetenv("XDG_DATA_HOME");
        EXPECT_EQ(FileKeychainBackend::defaultPath(), expected + "/NorvAnalytic/keychain.sqlite");
    }
    ::setenv("HOME", savedHome.c_str(), 1);
}

unsigned modeOf(const fs::path& path) {
    return static_cast<unsigned>(fs::status(path).permissions());
}

TEST(FileKeychainBackendTest, KeepsItsDirectoriesAndFilesToTheOwner) {
    const ScratchDirectory scratch;
    // A directory and a file that others may read are narrowed when the store opens them.
    fs::create_directory(scratch.path() / "loose");
    std::ofstream(scratch.path() / "loose/keychain.sqlite").close();
    fs::permissions(scratch.path() / "loose", fs::perms(0755));
    fs::permissions(scratch.path() / "loose/keychain.sqlite", fs::perms(0644));
    for (const std::string directory : {"data/NorvAnalytic", "loose"}) {
        ASSERT_EQ(fileKeychain(scratch, directory + "/keychain.sqlite")->add(query("a")), errSecSuccess);
        EXPECT_EQ(modeOf(scratch.path() / directory), 0700U);
        for (const auto& entry : fs::directory_iterator(scratch.path() / directory)) {
            EXPECT_EQ(modeOf(entry.path()), 0600U) << entry.path();
        }
    }
    EXPECT_EQ(modeOf(scratch.path() / "data"), 0700U);
}

// A second process saves a large item, and saves and deletes a shared one, over and over, and
// is killed in the middle of a save, again and again, while two threads here do the same.
TEST(SystemFileKeychainTest, WritersInTwoProcessesLoseNoWriteAndAKilledOneTearsNoItem) {
    const ScratchDirectory scratch;
    fileKeychain(scratch);
    for (int saves = 1; saves <= 16; saves += 3) {
        std::atomic<bool> childRunning = true;
        std::vector<std::jthread> writers;
        for (const std::string own : {"a", "b"}) {
            writers.emplace_back([&, own] {
                for (int iteration = 0; childRunning || iteration < 20; ++iteration) {
                    const std::string value(4096, static_cast<char>('a' + iteration % 26));
                    ASSERT_TRUE(Keychain::saveItem(value, own, "exchange", nullptr) &&
                                Keychain::saveItem(value, "shared", "exchange", nullptr) &&
                                Keychain::itemForKey(own, "exchange", nullptr) == value)
                        << "writer " << own << " lost a save beside " << saves;
                    Keychain::deleteItemForKey("shared", "exchange", nullptr);
                }
            });
        }
        const int status = Testing::runChildProcess({Testing::siblingExecutable("keychain_writer"),
                                                     scratch.path().string(), "churn", std::to_string(saves)},
                                                    {});
        childRunning = false;
        writers.clear();
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        // Every byte of the value is one letter: a value torn between two saves shows.
        const std::string victim = Keychain::itemForKey("victim", "churn", nullptr).value_or("-");
        EXPECT_TRUE(victim == std::string(256 * 1024, victim.front())) << "torn after " << saves;
    }
}

// Another process on the same store: the keychain_writer, told the Secret Service's schema by
// its environment, or else on the file in the scratch directory.
class IdentityAcrossProcessesTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        if (GetParam() == "SecretService" && !secretService()) {
            GTEST_SKIP() << "no Secret Service";
        }
    }
    void TearDown() override { Platform::setKeychainBackend(nullptr); }

    // Installs a fresh store of the parameter's kind.
    void freshStore(const ScratchDirectory& scratch) {
        static int run = 0;
        schema_ = "com.norvanalytic.identity" + std::to_string(::getpid()) + "." +
                  std::to_string(++run);
        GetParam() == "File" ? static_cast<void>(fileKeychain(scratch))
                             : Platform::setKeychainBackend(
                                   std::make_shared<SecretServiceKeychainBackend>(schema_,
                                                                                  "session"));
    }
    int writer(const ScratchDirectory& scratch, const std::vector<std::string>& arguments) {
        std::vector<std::string> argv{Testing::siblingExecutable("keychain_writer"),
                                      scratch.path().string()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return Testing::runChildProcess(argv, GetParam() == "File"
                                                  ? std::vector<std::string>{}
                                                  : std::vector{"KEYCHAIN_WRITER_SCHEMA=" + schema_});
    }
    // The device UUID items the store holds: the file's primary key allows no second.
    int storedUUIDs() const {
        if (GetParam() == "File") {
            return 1;
        }
        SecretSchema* search = secret_schema_new(schema_.c_str(), SECRET_SCHEMA_NONE, "account",
                                                 SECRET_SCHEMA_ATTRIBUTE_STRING, nullptr);
        GHashTable* attributes = g_hash_table_new(g_str_hash, g_str_equal);
        g_hash_table_insert(attributes, const_cast<char*>("account"), const_cast<char*>("device_uuid"));
        SecretService* service = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, nullptr);
        GList* items =
            secret_service_search_sync(service, search, attributes, SECRET_SEARCH_ALL, nullptr, nullptr);
        const int count = static_cast<int>(g_list_length(items));
        g_list_free_full(items, g_object_unref);
        g_object_unref(service);
        g_hash_table_unref(attributes);
        secret_schema_unref(search);
        return count;
    }

    std::string schema_;
};

// This process holds the device UUID in memory and another forgets the device: told by the
// store, within a second, this one no longer uses the old UUID, and until then nothing of ours
// wakes to look.
TEST_P(IdentityAcrossProcessesTest, AnotherProcesssErasureReachesTheCachedUUIDWithinASecond) {
    const ScratchDirectory scratch;
    freshStore(scratch);
    const std::string held = NorvAnalytics::getNorvAnalyticUUID();
    ASSERT_EQ(NorvAnalytics::getNorvAnalyticUUID(), held);
    // Our own last write is read back once more a moment after it; then nothing wakes.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(Testing::wakeUpsDuring(std::chrono::milliseconds(1500),
                                     [](const std::string& name) {
                                         return name == "norv-keychain" || name == "norv-secret";
                                     }),
              0U);
    ASSERT_EQ(writer(scratch, {"forget"}), 0);
    // The store's refresh interval keeps it under a second; a loaded machine may take longer.
    const auto erased = std::chrono::steady_clock::now();
    Testing::eventually([&] { return NorvAnalytics::getNorvAnalyticUUID() != held; });
    EXPECT_LT(std::chrono::steady_clock::now() - erased, std::chrono::seconds(1));
    EXPECT_NE(NorvAnalytics::getNorvAnalyticUUID(), held);
}

// Two processes of four threads and four threads here ask a fresh store for the device UUID at
// one instant, again and again: every process ends holding the one UUID the store holds. A
// caller waits 100 ms at most for the first write, so under load an early answer may be a
// candidate that lost; what each process holds once the write has landed is the stored one.
TEST_P(IdentityAcrossProcessesTest, ConcurrentFirstStartsInThreadsAndProcessesEndWithTheStoredUUID) {
    for (int trial = 0; trial < (GetParam() == "File" ? 50 : 20); ++trial) {
        const ScratchDirectory scratch;
        freshStore(scratch);
        const auto start = std::chrono::steady_clock::now() + std::chrono::milliseconds(150);
        const std::string startText =
            std::to_string(std::chrono::nanoseconds(start.time_since_epoch()).count());
        std::vector<std::string> answers(4);
        {
            std::vector<std::jthread> callers;
            for (int child = 0; child < 2; ++child) {
                callers.emplace_back([&] { EXPECT_EQ(writer(scratch, {"uuid", startText}), 0); });
            }
            for (auto& answer : answers) {
                callers.emplace_back([&answer, start] {
                    std::this_thread::sleep_until(start);
                    answer = NorvAnalytics::getNorvAnalyticUUID();
                });
            }
        }
        std::vector<std::string> held = linesOf(scratch.path(), "held-");
        std::ranges::copy(linesOf(scratch.path(), "uuids-"), std::back_inserter(answers));
        const Text stored = Keychain::itemForKey("device_uuid", "NorvAnalyticDeviceUUID", nullptr);
        ASSERT_TRUE(stored.has_value()) << "trial " << trial;
        Testing::eventually([&] { return NorvAnalytics::getNorvAnalyticUUID() == *stored; });
        held.push_back(NorvAnalytics::getNorvAnalyticUUID());
        ASSERT_EQ(answers.size(), 12U) << "trial " << trial;
        ASSERT_THAT(held, ::testing::ElementsAre(*stored, *stored, *stored)) << "trial " << trial;
        ASSERT_EQ(storedUUIDs(), 1) << "trial " << trial;
    }
}

INSTANTIATE_TEST_SUITE_P(SystemFile, IdentityAcrossProcessesTest, ::testing::Values("File"));
INSTANTIATE_TEST_SUITE_P(System, IdentityAcrossProcessesTest, ::testing::Values("SecretService"));

// A valid database of someone else's at the keychain's path, with an items table of another
// shape: moved aside like a damaged one and said on the sink, so that the next start keeps the
// UUID the new store holds instead of making one at every start.
TEST(SystemFileKeychainTest, AForeignDatabaseAtThePathIsMovedAsideAndTwoStartsHoldOneUUID) {
    const ScratchDirectory scratch;
    sqlite3* foreign = nullptr;
    ASSERT_EQ(sqlite3_open((scratch.path() / "keychain.sqlite").c_str(), &foreign), SQLITE_OK);
    const int made = sqlite3_exec(foreign,
                                  "CREATE TABLE items (id INTEGER PRIMARY KEY, label TEXT);"
                                  "INSERT INTO items (label) VALUES ('theirs')",
                                  nullptr, nullptr, nullptr);
    sqlite3_close(foreign);
    ASSERT_EQ(made, SQLITE_OK);
    std::vector<std::string> said;
    Platform::setDiagnosticsSink(
        [&](DiagnosticLevel, const std::string& line) { said.push_back(line); });
    fileKeychain(scratch);
    const std::string first = NorvAnalytics::getNorvAnalyticUUID();
    // A second start opens the file the first one made, with an identity not yet read.
    fileKeychain(scratch);
    EXPECT_EQ(NorvAnalytics::getNorvAnalyticUUID(), first);
    Platform::setDiagnosticsSink(nullptr);
    ASSERT_EQ(said.size(), 1U);
    EXPECT_NE(said[0].find("moved aside"), std::string::npos) << said[0];
    EXPECT_EQ(Keychain::itemForKey("device_uuid", "NorvAnalyticDeviceUUID", nullptr), first);
    Platform::setKeychainBackend(nullptr);
}

// fork() while another thread writes: the child never touches the connection or locks it
// inherited (a thread of the parent's may have held them), keeps the identity, and its cache
// follows the store again, as its thread starts anew.
TEST(SystemFileKeychainTest, AForkedChildWritesThroughItsOwnConnectionAndFollowsTheStore) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizers' own allocators are not fork-safe: a child forked while another thread
    // allocates can hang in its first allocation, whatever the SDK does.
    GTEST_SKIP() << "a sanitizer's allocator cannot be used in a child of a threaded process";
#endif
    const ScratchDirectory scratch;
    fileKeychain(scratch);
    const std::string uuid = NorvAnalytics::getNorvAnalyticUUID();
    NorvAnalytics::saveStoreUserID(std::string("parent"));
    const auto waitForChild = [](pid_t child) {
        int status = 0;
        if (!Testing::eventually([&] { return ::waitpid(child, &status, WNOHANG) == child; })) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    std::atomic<bool> churning = true;
    std::jthread writer([&] {
        for (int round = 0; churning; ++round) {
            Keychain::saveItem(std::string(1024, static_cast<char>('a' + round % 26)), "churn",
                               "fork", nullptr);
        }
    });
    for (int fork = 0; fork < 20; ++fork) {
        const pid_t child = ::fork();
        if (child == 0) {
            const bool works = Keychain::saveItem("child", "mine", "fork", nullptr) &&
                               NorvAnalytics::getNorvAnalyticUUID() == uuid;
            ::_exit(works ? 0 : 1);
        }
        EXPECT_EQ(waitForChild(child), 0) << "fork " << fork;
    }
    churning = false;
    writer.join();

    const pid_t child = ::fork();
    if (child == 0) {
        auto& cache = KeychainItemCache::shared();
        ::_exit(Testing::eventually([&] {
                    return cache.item("user_id", "NorvAnalyticDeviceUUID").value == "later";
                }, std::chrono::seconds(3))
                    ? 0
                    : 1);
    }
    NorvAnalytics::saveStoreUserID(std::string("later"));
    EXPECT_EQ(waitForChild(child), 0);
}

}  // namespace
}  // namespace NorvAnalytic
