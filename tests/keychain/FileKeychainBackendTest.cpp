#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "keychain/FileKeychainBackend.h"
#include "keychain/PatternedValue.h"
#include "support/ScratchKeychain.h"

extern char** environ;

namespace NorvAnalytic {
namespace {

using Testing::isWholePatternedValue;
using Testing::patternedValue;
using Testing::ScratchKeychain;

constexpr std::size_t kExchangeSize = 4096;
constexpr std::size_t kChurnSize = 256 * 1024;

mode_t modeOf(const std::filesystem::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

KeychainQuery itemQuery(const std::string& account) {
    KeychainQuery query;
    query.account = account;
    query.service = "svc";
    query.valueData = Data{1, 2, 3};
    return query;
}

// Restores one environment variable when the test ends.
class EnvironmentVariable {
public:
    explicit EnvironmentVariable(const char* name) : name_(name) {
        if (const char* value = std::getenv(name)) {
            saved_ = value;
        }
    }
    ~EnvironmentVariable() {
        if (saved_) {
            ::setenv(name_, saved_->c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

private:
    const char* name_;
    std::optional<std::string> saved_;
};

// Runs keychain_writer with its stdout on a pipe; the pipe's read end is outputFd.
struct Writer {
    pid_t pid = -1;
    int outputFd = -1;
};

Writer startWriter(const std::vector<std::string>& arguments) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) {
        ADD_FAILURE() << "pipe failed";
        return {};
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    posix_spawn_file_actions_addclose(&actions, pipeFds[1]);
    std::vector<std::string> all = {NORV_KEYCHAIN_WRITER};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : all) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    Writer writer;
    const int spawned =
        ::posix_spawn(&writer.pid, NORV_KEYCHAIN_WRITER, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    EXPECT_EQ(spawned, 0);
    writer.outputFd = pipeFds[0];
    return writer;
}

int waitForExit(const Writer& writer) {
    int status = 0;
    ::waitpid(writer.pid, &status, 0);
    ::close(writer.outputFd);
    return status;
}

TEST(FileKeychainBackendTest, DefaultPathFollowsXdgDataHome) {
    EnvironmentVariable xdg("XDG_DATA_HOME");
    EnvironmentVariable home("HOME");
    ::setenv("HOME", "/home/someone", 1);
    ::setenv("XDG_DATA_HOME", "/data/xdg", 1);
    EXPECT_EQ(FileKeychainBackend::defaultPath(), "/data/xdg/NorvAnalytic/keychain.sqlite");
    // A relative value is not a valid XDG directory and falls back to the home directory.
    ::setenv("XDG_DATA_HOME", "relative/dir", 1);
    EXPECT_EQ(FileKeychainBackend::defaultPath(),
              "/home/someone/.local/share/NorvAnalytic/keychain.sqlite");
    ::unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(FileKeychainBackend::defaultPath(),
              "/home/someone/.local/share/NorvAnalytic/keychain.sqlite");
}

TEST(FileKeychainBackendTest, KeepsItsDirectoryAndFilesToTheOwner) {
    const ScratchKeychain scratch;
    const auto directory = scratch.directory() / "data" / "NorvAnalytic";
    const mode_t previousMask = ::umask(0);
    {
        const auto backend =
            KeychainBackend::makeFileBackend((directory / "keychain.sqlite").string());
        ASSERT_EQ(backend->add(itemQuery("a")), errSecSuccess);
        EXPECT_EQ(modeOf(scratch.directory() / "data"), 0700U);
        EXPECT_EQ(modeOf(directory), 0700U);
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            EXPECT_EQ(modeOf(entry.path()), 0600U) << entry.path();
        }
    }

    // A directory and file left readable by others are narrowed on open.
    const auto loose = scratch.directory() / "loose";
    std::filesystem::create_directory(loose);
    ::chmod(loose.c_str(), 0755);
    std::ofstream(loose / "keychain.sqlite").close();
    ::chmod((loose / "keychain.sqlite").c_str(), 0644);
    {
        FileKeychainBackend backend(loose / "keychain.sqlite");
        EXPECT_EQ(backend.copyMatching(itemQuery("a"), nullptr), errSecItemNotFound);
        EXPECT_EQ(modeOf(loose), 0700U);
        EXPECT_EQ(modeOf(loose / "keychain.sqlite"), 0600U);
    }
    ::umask(previousMask);
}

TEST(FileKeychainBackendTest, AStoreThatCannotBeOpenedOrReadIsNotAllowed) {
    const ScratchKeychain scratch;
    std::ofstream(scratch.directory() / "plain-file") << "in the way";
    std::ofstream(scratch.directory() / "foreign.sqlite") << std::string(8192, 'z');

    for (const auto& path : {scratch.directory() / "plain-file" / "keychain.sqlite",
                             scratch.directory() / "foreign.sqlite"}) {
        FileKeychainBackend backend(path);
        KeychainItemAttributes result;
        EXPECT_EQ(backend.copyMatching(itemQuery("a"), &result), errSecInteractionNotAllowed);
        EXPECT_EQ(backend.add(itemQuery("a")), errSecInteractionNotAllowed);
        EXPECT_EQ(backend.update(itemQuery("a"), itemQuery("a")), errSecInteractionNotAllowed);
        EXPECT_EQ(backend.remove(itemQuery("a")), errSecInteractionNotAllowed);
    }

    Platform::setKeychainBackend(
        std::make_shared<FileKeychainBackend>(scratch.directory() / "foreign.sqlite"));
    std::optional<Error> error;
    EXPECT_FALSE(Keychain::saveItem("value", "device_uuid", "NorvAnalyticDeviceUUID", &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, errSecInteractionNotAllowed);
    // The foreign file is left as it was.
    EXPECT_EQ(std::filesystem::file_size(scratch.directory() / "foreign.sqlite"), 8192U);
}

TEST(FileKeychainBackendTest, ThreadsLoseNoWriteAndSeeNoTornValue) {
    const ScratchKeychain scratch;
    constexpr int kThreads = 4;
    constexpr int kIterations = 60;
    ASSERT_TRUE(Keychain::saveItem(patternedValue("seed", 0, kExchangeSize), "shared", "exchange",
                                   nullptr));

    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([index, &failure = failures[index]] {
            const std::string name = "thread" + std::to_string(index);
            for (int iteration = 0; iteration < kIterations && failure.empty(); ++iteration) {
                const std::string own = patternedValue(name, iteration, kExchangeSize);
                if (!Keychain::saveItem(own, name, "exchange", nullptr) ||
                    !Keychain::saveItem(own, "shared", "exchange", nullptr)) {
                    failure = "save failed at " + std::to_string(iteration);
                } else if (Keychain::itemForKey(name, "exchange", nullptr) != own) {
                    failure = "own value lost at " + std::to_string(iteration);
                } else if (!isWholePatternedValue(
                               Keychain::itemForKey("shared", "exchange", nullptr).value_or(""),
                               kExchangeSize)) {
                    failure = "shared value torn at " + std::to_string(iteration);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (int index = 0; index < kThreads; ++index) {
        EXPECT_EQ(failures[index], "") << "thread " << index;
        const std::string name = "thread" + std::to_string(index);
        EXPECT_EQ(Keychain::itemForKey(name, "exchange", nullptr),
                  patternedValue(name, kIterations - 1, kExchangeSize));
    }
}

TEST(FileKeychainBackendTest, ProcessesSharingOneFileLoseNoWrite) {
    const ScratchKeychain scratch;
    constexpr int kIterations = 60;
    ASSERT_TRUE(Keychain::saveItem(patternedValue("seed", 0, kExchangeSize), "shared", "exchange",
                                   nullptr));
    const std::vector<std::string> names = {"first", "second"};
    std::vector<Writer> writers;
    for (const auto& name : names) {
        writers.push_back(
            startWriter({scratch.path().string(), "exchange", name, std::to_string(kIterations)}));
    }
    // This process reads and writes the same items meanwhile, through its own connection.
    for (int iteration = 0; iteration < kIterations; ++iteration) {
        const std::string own = patternedValue("parent", iteration, kExchangeSize);
        ASSERT_TRUE(Keychain::saveItem(own, "parent", "exchange", nullptr));
        ASSERT_EQ(Keychain::itemForKey("parent", "exchange", nullptr), own);
        ASSERT_TRUE(isWholePatternedValue(
            Keychain::itemForKey("shared", "exchange", nullptr).value_or(""), kExchangeSize));
    }
    for (const auto& writer : writers) {
        const int status = waitForExit(writer);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    }
    for (const auto& name : names) {
        EXPECT_EQ(Keychain::itemForKey(name, "exchange", nullptr),
                  patternedValue(name, kIterations - 1, kExchangeSize));
    }
}

TEST(FileKeychainBackendTest, AWriterKilledMidWriteLeavesTheFileIntact) {
    const ScratchKeychain scratch;
    for (int round = 0; round < 6; ++round) {
        const Writer writer = startWriter({scratch.path().string(), "churn", "churner"});
        // Let it finish a few saves, then kill it while it is in the next one.
        const int savesBeforeKill = 1 + round * 3;
        for (int received = 0; received < savesBeforeKill;) {
            char buffer[64];
            const auto count =
                ::read(writer.outputFd, buffer,
                       std::min<std::size_t>(sizeof buffer, savesBeforeKill - received));
            ASSERT_GT(count, 0) << "the writer stopped early";
            received += static_cast<int>(count);
        }
        ::kill(writer.pid, SIGKILL);
        const int status = waitForExit(writer);
        ASSERT_TRUE(WIFSIGNALED(status)) << "status " << status;

        // A fresh connection, as the next process to start would have.
        Platform::setKeychainBackend(std::make_shared<FileKeychainBackend>(scratch.path()));
        const auto value = Keychain::itemForKey("victim", "churn", nullptr);
        Platform::setKeychainBackend(scratch.backend());
        ASSERT_TRUE(value.has_value());
        EXPECT_TRUE(isWholePatternedValue(*value, kChurnSize)) << value->substr(0, 20);
    }

    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open_v2(scratch.path().c_str(), &database, SQLITE_OPEN_READONLY, nullptr),
              SQLITE_OK);
    sqlite3_stmt* check = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(database, "PRAGMA integrity_check", -1, &check, nullptr),
              SQLITE_OK);
    ASSERT_EQ(sqlite3_step(check), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(check, 0)), "ok");
    sqlite3_finalize(check);
    sqlite3_close(database);
}

}  // namespace
}  // namespace NorvAnalytic
