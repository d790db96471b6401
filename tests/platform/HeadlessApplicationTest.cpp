#include <NorvAnalytic/Platform.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <unistd.h>

#include "platform/HeadlessApplication.h"

namespace NorvAnalytic {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

// Children of this process that have exited but were never waited for.
int zombieChildren() {
    int zombies = 0;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string stat = readFile(entry.path() / "stat");
        const auto commandEnd = stat.rfind(')');
        if (commandEnd == std::string::npos) {
            continue;
        }
        char state = 0;
        int parent = 0;
        std::istringstream fields(stat.substr(commandEnd + 1));
        fields >> state >> parent;
        if (parent == ::getpid() && state == 'Z') {
            ++zombies;
        }
    }
    return zombies;
}

template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

class HeadlessApplicationTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "norv-ui-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
    }
    void TearDown() override { fs::remove_all(directory_); }

    fs::path writeScript(const std::string& name, const std::string& body) {
        const fs::path path = directory_ / name;
        std::ofstream(path) << "#!/bin/sh\n" << body;
        fs::permissions(path, fs::perms::owner_all);
        return path;
    }

    // Records its arguments, one per line after their count, and answers for one scheme.
    fs::path mimeQuery(const std::string& registeredScheme) {
        return writeScript("xdg-mime", "printf '%s\\n' \"$#\" \"$@\" > '" +
                                           (directory_ / "mime-arguments").string() + "'\n" +
                                           "if [ \"$3\" = x-scheme-handler/" + registeredScheme +
                                           " ]; then echo linden-store.desktop; fi\n");
    }

    fs::path opener() {
        const fs::path record = directory_ / "opened";
        return writeScript("xdg-open", "printf '%s\\n' \"$#\" \"$@\" > '" + record.string() +
                                           ".partial' && mv '" + record.string() + ".partial' '" +
                                           record.string() + "'\n");
    }

    fs::path directory_;
};

TEST_F(HeadlessApplicationTest, IsTheDefaultApplicationAndHasNoWindow) {
    auto application = Platform::application();
    EXPECT_NE(std::dynamic_pointer_cast<HeadlessApplication>(application), nullptr);
    EXPECT_EQ(application->keyWindow(), nullptr);
}

TEST_F(HeadlessApplicationTest, CanOpenWhenTheDesktopNamesAHandlerForTheScheme) {
    HeadlessApplication application(mimeQuery("lindenstoreqrwpt"), opener());

    EXPECT_TRUE(application.canOpenURL(*URL::URLWithString("lindenStoreQRWPT://")));
    EXPECT_EQ(readFile(directory_ / "mime-arguments"),
              "3\nquery\ndefault\nx-scheme-handler/lindenstoreqrwpt\n");
    EXPECT_FALSE(application.canOpenURL(*URL::URLWithString("itms-services://?action=x")));

    HeadlessApplication failing(writeScript("failing", "echo handler.desktop; exit 3\n"), opener());
    EXPECT_FALSE(failing.canOpenURL(*URL::URLWithString("lindenStoreQRWPT://")));
    HeadlessApplication missing((directory_ / "no-such-program").string(), opener());
    EXPECT_FALSE(missing.canOpenURL(*URL::URLWithString("lindenStoreQRWPT://")));
    EXPECT_EQ(zombieChildren(), 0);
}

TEST_F(HeadlessApplicationTest, GivesUpOnAHangingQueryAndLeavesNoProcessBehind) {
    HeadlessApplication application(writeScript("hanging", "echo handler.desktop\nexec sleep 60\n"),
                                    opener(), 200ms);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(application.canOpenURL(*URL::URLWithString("lindenStoreQRWPT://")));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_EQ(zombieChildren(), 0);
}

TEST_F(HeadlessApplicationTest, OpensTheURLAsOneArgumentWithoutAShell) {
    // Through a shell this line would run touch twice: in $(...) and after the ';'.
    const fs::path substituted = directory_ / "substituted";
    const fs::path chained = directory_ / "chained";
    const std::string hostile = "https://dl.example.com/app.plist?a=$(touch$IFS" +
                                substituted.string() + ")&b=1;touch$IFS" + chained.string() +
                                ";c='$(id)'";
    auto url = URL::URLWithString(hostile);
    ASSERT_TRUE(url.has_value());
    HeadlessApplication application(mimeQuery("https"), opener());

    ASSERT_TRUE(application.openURL(*url));

    ASSERT_TRUE(eventually([&] { return fs::exists(directory_ / "opened"); }));
    EXPECT_EQ(readFile(directory_ / "opened"), "1\n" + hostile + "\n");
    EXPECT_FALSE(fs::exists(substituted));
    EXPECT_FALSE(fs::exists(chained));
    EXPECT_TRUE(eventually([] { return zombieChildren() == 0; }));

    HeadlessApplication missing(mimeQuery("https"), (directory_ / "no-such-program").string());
    EXPECT_FALSE(missing.openURL(*url));
}

}  // namespace
}  // namespace NorvAnalytic
