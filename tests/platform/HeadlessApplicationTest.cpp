#include <NorvAnalytic/Platform.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/HeadlessApplication.h"

namespace NorvAnalytic {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::string readFile(const fs::path& path) {
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

// True once this process has no child left, running or unreaped. The opener and its detached
// reaper finish in their own time, so this waits for them up to the given limit.
bool noChildrenWithin(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    siginfo_t info{};
    while (::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != -1 || errno != ECHILD) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

TEST(HeadlessApplicationTest, AsksTheDesktopAndOpensWithoutAShellLeavingNoProcessBehind) {
    std::string pattern = (fs::temp_directory_path() / "norv-ui-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    const fs::path directory = pattern;
    auto script = [&](const std::string& name, const std::string& body) {
        std::ofstream(directory / name) << "#!/bin/sh\n" << body;
        fs::permissions(directory / name, fs::perms::owner_all);
        return (directory / name).string();
    };
    const std::string missing = (directory / "no-such-program").string();
    // Each records its arguments, one per line after their count.
    const std::string record = "printf '%s\\n' \"$#\" \"$@\" > " + directory.string();
    // Exits 0 for any scheme, so only its empty answer says "no handler".
    const std::string mime =
        script("xdg-mime", record + "/asked\ncase $3 in *lindenstoreqrwpt) echo a.desktop; esac\n");
    const std::string opener = script("xdg-open", record + "/opened\n");
    const auto store = *URL::URLWithString("lindenStoreQRWPT://");

    EXPECT_NE(std::dynamic_pointer_cast<HeadlessApplication>(Platform::application()), nullptr);
    EXPECT_EQ(Platform::application()->keyWindow(), nullptr);
    HeadlessApplication application(mime, opener);
    EXPECT_TRUE(application.canOpenURL(store));
    EXPECT_EQ(readFile(directory / "asked"),
              "3\nquery\ndefault\nx-scheme-handler/lindenstoreqrwpt\n");
    const auto start = std::chrono::steady_clock::now();
    const std::string failing = script("failing", "echo a.desktop; exit 3\n");
    const std::string hanging = script("hanging", "echo a.desktop\nexec sleep 60\n");
    EXPECT_EQ(
        (std::vector<bool>{application.canOpenURL(*URL::URLWithString("itms-services://?action=x")),
                           HeadlessApplication(failing, opener).canOpenURL(store),
                           HeadlessApplication(missing, opener).canOpenURL(store),
                           HeadlessApplication(hanging, opener, 200ms).canOpenURL(store)}),
        std::vector<bool>(4, false));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_TRUE(noChildrenWithin(0ms));

    // Through a shell this would run touch twice: in $(...) and after the ';'.
    const std::string hostile = "https://dl.example.com/m.plist?a=$(touch$IFS" +
                                directory.string() + "/a)&b=1;touch$IFS" + directory.string() +
                                "/b;c='$(id)'";
    ASSERT_TRUE(application.openURL(*URL::URLWithString(hostile)));
    // The opener is this process's child until its reaper is done with it.
    ASSERT_TRUE(noChildrenWithin(10s));
    EXPECT_EQ(readFile(directory / "opened"), "1\n" + hostile + "\n");
    EXPECT_FALSE(fs::exists(directory / "a") || fs::exists(directory / "b"));
    EXPECT_FALSE(HeadlessApplication(mime, missing).openURL(store));
    fs::remove_all(directory);
}

}  // namespace
}  // namespace NorvAnalytic
