// A Secret Service that stops answering, and one that is killed and started again, under the
// test's own session bus (ctest runs this suite in dbus-run-session) with a gnome-keyring of
// its own, whose process id it knows.
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <fcntl.h>
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "keychain/SecretServiceKeychainBackend.h"

extern char** environ;

namespace NorvAnalytic {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Whether org.freedesktop.secrets has an owner on the session bus now.
bool serviceOwned() {
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    if (bus == nullptr) {
        return false;
    }
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", "org.freedesktop.secrets"), G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, nullptr);
    gboolean owned = FALSE;
    if (reply != nullptr) {
        g_variant_get(reply, "(b)", &owned);
        g_variant_unref(reply);
    }
    g_object_unref(bus);
    return owned != FALSE;
}

// gnome-keyring's Secret Service as a child of this process, unlocked, its files in a
// directory of its own.
class Keyring {
public:
    Keyring() {
        std::string pattern = std::filesystem::temp_directory_path() / "norv-keyring-XXXXXX";
        home_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
        ::setenv("HOME", home_.c_str(), 1);
        ::setenv("XDG_DATA_HOME", (home_ / "data").c_str(), 1);
        ::setenv("XDG_RUNTIME_DIR", home_.c_str(), 1);
    }
    ~Keyring() {
        kill();
        std::error_code ignored;
        std::filesystem::remove_all(home_, ignored);
    }
    Keyring(const Keyring&) = delete;
    Keyring& operator=(const Keyring&) = delete;

    // Starts a daemon and returns once it owns the service's name.
    bool start() {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        // An empty password on stdin unlocks the login keyring; the daemon's chatter is dropped.
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        char program[] = "gnome-keyring-daemon";
        char foreground[] = "--foreground";
        char components[] = "--components=secrets";
        char unlock[] = "--unlock";
        char replace[] = "--replace";
        char* argv[] = {program, foreground, components, unlock, replace, nullptr};
        const int spawned = ::posix_spawnp(&pid_, program, &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0) {
            pid_ = 0;
            return false;
        }
        const auto deadline = Clock::now() + 10s;
        while (!serviceOwned() && Clock::now() < deadline) {
            std::this_thread::sleep_for(20ms);
        }
        return serviceOwned();
    }
    void signal(int number) const { ::kill(pid_, number); }
    void kill() {
        if (pid_ > 0) {
            ::kill(pid_, SIGCONT);
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            pid_ = 0;
        }
    }

private:
    std::filesystem::path home_;
    pid_t pid_ = 0;
};

TEST(SecretServiceOutage, AStoppedDaemonHoldsNoCallerLongAndARestartedOneIsFoundAgain) {
    Keyring keyring;
    ASSERT_TRUE(keyring.start()) << "gnome-keyring-daemon did not start";
    std::vector<std::string> said;
    Platform::setDiagnosticsSink(
        [&](DiagnosticLevel, const std::string& line) { said.push_back(line); });
    Platform::setKeychainBackend(
        std::make_shared<SecretServiceKeychainBackend>("com.norvanalytic.outage", "session"));
    ASSERT_TRUE(Keychain::saveItem("before", "token", "api", nullptr));

    // Stopped: initWithKey goes on within a moment with a UUID of its own in memory, and a
    // host's own call fails after the store's time-out instead of D-Bus's 25 s.
    keyring.signal(SIGSTOP);
    auto start = Clock::now();
    NorvAnalytics::initWithKey(std::string("key"));
    const auto initialised = Clock::now() - start;
    const std::string meanwhile = NorvAnalytics::getNorvAnalyticUUID();
    EXPECT_LT(initialised, 250ms);
    RecordProperty("initWithKeyMicroseconds",
                   std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(initialised)
                                      .count()));
    EXPECT_EQ(meanwhile.size(), 36U);
    std::optional<Error> error;
    start = Clock::now();
    EXPECT_FALSE(Keychain::itemForKey("token", "api", &error).has_value());
    const auto failed = Clock::now() - start;
    EXPECT_LT(failed, 4500ms);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, errSecInteractionNotAllowed);
    keyring.signal(SIGCONT);

    // Killed and started again: the same process saves and reads, with a session of the new
    // daemon's, and the identity the first one lost is stored anew.
    keyring.kill();
    ASSERT_TRUE(keyring.start()) << "gnome-keyring-daemon did not start again";
    EXPECT_TRUE(Keychain::saveItem("after", "token", "api", nullptr));
    EXPECT_EQ(Keychain::itemForKey("token", "api", nullptr), "after");
    start = Clock::now();
    while (Keychain::itemForKey("device_uuid", "NorvAnalyticDeviceUUID", nullptr) != meanwhile &&
           Clock::now() - start < 60s) {
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_EQ(Keychain::itemForKey("device_uuid", "NorvAnalyticDeviceUUID", nullptr), meanwhile);
    EXPECT_EQ(NorvAnalytics::getNorvAnalyticUUID(), meanwhile);
    Platform::setDiagnosticsSink(nullptr);
    EXPECT_EQ(std::count_if(said.begin(), said.end(),
                            [](const std::string& line) {
                                return line.starts_with("The Secret Service did not answer");
                            }),
              1);
    NorvAnalytics::sharedController().timer()->invalidate();
    Platform::setKeychainBackend(nullptr);
}

}  // namespace
}  // namespace NorvAnalytic
