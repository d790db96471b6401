#include <NorvAnalytic/Keychain.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include "keychain/FileKeychainBackend.h"
#include "support/ChildProcess.h"
#include "support/ScratchKeychain.h"

namespace NorvAnalytic {
namespace {

using Testing::ScratchKeychain;

mode_t modeOf(const std::filesystem::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

TEST(FileKeychainBackendTest, DefaultPathFollowsXdgDataHome) {
    const std::string savedHome = std::getenv("HOME") ? std::getenv("HOME") : "/";
    ::setenv("HOME", "/home/someone", 1);
    const std::string fallback = "/home/someone/.local/share/NorvAnalytic/keychain.sqlite";
    // A relative XDG_DATA_HOME is invalid and ignored.
    const std::pair<const char*, std::string> rows[] = {
        {"/data/xdg", "/data/xdg/NorvAnalytic/keychain.sqlite"},
        {"relative/dir", fallback},
        {nullptr, fallback},
    };
    for (const auto& [xdg, expected] : rows) {
        xdg ? ::setenv("XDG_DATA_HOME", xdg, 1) : ::unsetenv("XDG_DATA_HOME");
        EXPECT_EQ(FileKeychainBackend::defaultPath(), expected);
    }
    ::setenv("HOME", savedHome.c_str(), 1);
}

TEST(FileKeychainBackendTest, KeepsItsDirectoriesAndFilesToTheOwner) {
    const ScratchKeychain scratch;
    const auto fresh = scratch.directory() / "data" / "NorvAnalytic";
    const auto loose = scratch.directory() / "loose";
    // A directory and a file that others may read are narrowed when the store opens them.
    std::filesystem::create_directory(loose);
    ::chmod(loose.c_str(), 0755);
    std::ofstream(loose / "keychain.sqlite").close();
    ::chmod((loose / "keychain.sqlite").c_str(), 0644);
    for (const auto& directory : {fresh, loose}) {
        FileKeychainBackend backend(directory / "keychain.sqlite");
        ASSERT_EQ(backend.add(Keychain::_baseQueryDictionaryForKey("a", "s", "")), errSecSuccess);
        EXPECT_EQ(modeOf(directory), 0700U);
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            EXPECT_EQ(modeOf(entry.path()), 0600U) << entry.path();
        }
    }
    EXPECT_EQ(modeOf(fresh.parent_path()), 0700U);
}

int runWriter(const ScratchKeychain& scratch, const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {Testing::siblingExecutable("keychain_writer"), scratch.path()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return Testing::runChildProcess(argv, {});
}

TEST(SystemFileKeychainTest, ThreadsAndProcessesOnOneFileLoseNoWrite) {
    const ScratchKeychain scratch;
    // Two first saves of one key may both take the add path; the writers only ever update it.
    ASSERT_TRUE(Keychain::saveItem("seed", "shared", "exchange", nullptr));
    std::vector<int> statuses(3);
    {
        std::vector<std::jthread> writers;
        for (std::size_t index = 0; index < statuses.size(); ++index) {
            writers.emplace_back([&, index] {
                statuses[index] = runWriter(scratch, {"exchange", std::to_string(index)});
            });
        }
    }
    for (const int status : statuses) {
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
}

TEST(SystemFileKeychainTest, AWriterKilledMidWriteLeavesTheItemWhole) {
    const ScratchKeychain scratch;
    for (int saves = 1; saves <= 16; saves += 3) {
        const int status = runWriter(scratch, {"churn", std::to_string(saves)});
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        EXPECT_EQ(runWriter(scratch, {"check"}), 0) << "torn after " << saves << " saves";
    }
}

}  // namespace
}  // namespace NorvAnalytic
