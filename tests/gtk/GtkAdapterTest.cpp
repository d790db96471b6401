#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/URL.h>
#include <NorvAnalytic/norv_gtk.h>
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/FakeKeychainBackend.h"
#include "support/QueueOrderProbe.h"
#include "support/RecordingHttpClient.h"
#include "support/SlowDesktop.h"

namespace NorvAnalytic {
namespace {

// Turns the GTK loop until `done` holds, for at most ten seconds.
bool loopUntil(const std::function<bool()>& done) {
    return Testing::eventually(
        [&] { return done() || (g_main_context_iteration(nullptr, FALSE), done()); },
        std::chrono::seconds(10));
}

std::vector<GtkMessageDialog*> dialogs() {
    std::vector<GtkMessageDialog*> found;
    GListModel* toplevels = gtk_window_get_toplevels();
    for (guint index = 0; index < g_list_model_get_n_items(toplevels); ++index) {
        auto* window = static_cast<GtkWidget*>(g_list_model_get_item(toplevels, index));
        if (GTK_IS_MESSAGE_DIALOG(window) && gtk_widget_get_visible(window)) {
            found.push_back(GTK_MESSAGE_DIALOG(window));
        }
        g_object_unref(window);
    }
    return found;
}

std::string property(GtkMessageDialog* dialog, const char* name) {
    gchar* value = nullptr;
    g_object_get(dialog, name, &value, nullptr);
    std::string text = value != nullptr ? value : "";
    g_free(value);
    return text;
}

std::string buttonLabel(GtkMessageDialog* dialog, int response) {
    GtkWidget* button = gtk_dialog_get_widget_for_response(GTK_DIALOG(dialog), response);
    return button != nullptr ? gtk_button_get_label(GTK_BUTTON(button)) : "";
}

// A desktop whose only https handler appends each URL it is given to a file: what
// gtk_show_uri hands the desktop. Set before GTK starts, which reads it once.
std::filesystem::path fakeBrowser() {
    const auto home = std::filesystem::temp_directory_path() /
                      ("norv-gtk-test-" + std::to_string(::getpid()));
    std::filesystem::create_directories(home / "data/applications");
    std::filesystem::create_directories(home / "config");
    const auto opened = home / "opened";
    const auto script = home / "browser";
    std::ofstream(script) << "#!/bin/sh\necho \"$1\" >> '" << opened.string() << "'\n";
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    std::ofstream(home / "data/applications/norv-browser.desktop")
        << "[Desktop Entry]\nType=Application\nName=Browser\nExec=" << script.string()
        << " %u\nMimeType=x-scheme-handler/https;\n";
    std::ofstream(home / "config/mimeapps.list")
        << "[Default Applications]\nx-scheme-handler/https=norv-browser.desktop\n";
    ::setenv("XDG_DATA_HOME", (home / "data").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (home / "config").c_str(), 1);
    return opened;
}

std::string contents(const std::filesystem::path& file) {
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(GtkAdapter, TheAlertIsAModalDialogOverTheWindowDrivenFromTheGtkThread) {
    EXPECT_EQ(norv_gtk_install(), 0);  // before gtk_init
    const std::filesystem::path opened = fakeBrowser();
    gtk_init();
    ASSERT_EQ(norv_gtk_install(), 1);
    ASSERT_EQ(norv_gtk_install(), 1);
    const std::thread::id gtkThread = std::this_thread::get_id();
    Bundle::setMainBundle(std::make_shared<Bundle>(
        "com.example.host", Bundle::InfoDictionary{{"CFBundleShortVersionString", "1.0"}}));
    auto http = std::make_shared<Testing::RecordingHttpClient>();
    Platform::setHttpClient(http);
    Platform::setKeychainBackend(std::make_shared<Testing::FakeKeychainBackend>());
    std::vector<bool> answeredOnGtkThread;  // one per answer's console line
    Platform::setLogSink([&](const std::string&) {
        answeredOnGtkThread.push_back(std::this_thread::get_id() == gtkThread);
    });
    GtkWidget* window = gtk_window_new();
    gtk_window_present(GTK_WINDOW(window));
    NorvAnalytics::initWithKey(std::string("key"));
    NorvAnalytics::checkUpdates(true);
    const auto answerAppOpen = [&](const std::string& versions) {
        const std::size_t lines = answeredOnGtkThread.size();
        NorvAnalytics::sendAppOpenEvent();
        const std::string answer = R"({"payload":{"analytics_enabled":true,)" + versions + "}}";
        EXPECT_TRUE(loopUntil([&] { return http->answerAll(200, answer) > 0; }));
        EXPECT_TRUE(loopUntil([&] { return answeredOnGtkThread.size() > lines; }));
        return dialogs();
    };

    const std::string offer = R"("force_version":null,"offer_version":{"no":"2.0","download_url":)"
                              R"("https://dl.example.com/m.plist"})";
    auto shown = answerAppOpen(offer);
    ASSERT_EQ(shown.size(), 1U);
    GtkMessageDialog* dialog = shown[0];
    EXPECT_TRUE(gtk_window_get_modal(GTK_WINDOW(dialog)));
    EXPECT_EQ(gtk_window_get_transient_for(GTK_WINDOW(dialog)), GTK_WINDOW(window));
    EXPECT_EQ(property(dialog, "text"), "New Update Available!");
    EXPECT_EQ(buttonLabel(dialog, 0) + "|" + buttonLabel(dialog, 1), "Update|Cancel");
    EXPECT_EQ(answerAppOpen(offer), shown);  // nothing new while it shows

    // Esc answers Cancel. The tap runs on this thread, the main queue's, before close returns:
    // were it posted to the queue and waited for, this thread would wait for itself.
    gtk_window_close(GTK_WINDOW(dialog));
    EXPECT_TRUE(dialogs().empty());
    EXPECT_FALSE(NorvAnalytics::sharedController().alertController()->isOnScreen());

    // Update opens the manifest's address through the desktop's handler.
    shown = answerAppOpen(offer);
    ASSERT_EQ(shown.size(), 1U);
    gtk_dialog_response(GTK_DIALOG(shown[0]), 0);
    EXPECT_TRUE(dialogs().empty());
    EXPECT_TRUE(loopUntil([&] { return !contents(opened).empty(); }));
    EXPECT_EQ(contents(opened), "https://dl.example.com/m.plist\n");

    shown = answerAppOpen(R"("force_version":{"no":"3.0","download_url":"https://x.test/f"})");
    ASSERT_EQ(shown.size(), 1U);
    EXPECT_EQ(buttonLabel(shown[0], 0) + "|" + buttonLabel(shown[0], 1), "Update|");
    gtk_window_close(GTK_WINDOW(shown[0]));
    EXPECT_EQ(dialogs(), shown);  // a forced update stays up
    EXPECT_GE(answeredOnGtkThread.size(), 4U);
    EXPECT_EQ(std::count(answeredOnGtkThread.begin(), answeredOnGtkThread.end(), false), 0);

    // With the adapter gone, a task posted from another thread runs without the GTK loop.
    norv_gtk_uninstall();
    std::thread([] { MainQueue::main().sync([] {}); }).join();
    gtk_window_destroy(GTK_WINDOW(window));
    std::filesystem::remove_all(opened.parent_path());
}

TEST(GtkAdapter, TheGtkThreadNeverWaitsForTheDesktop) {
    Platform::setApplication(std::make_shared<Testing::SlowDesktop>());
    gtk_init();
    ASSERT_EQ(norv_gtk_install(), 1);
    const URL url = *URL::URLWithString("x-test://a");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Platform::application()->canOpenURL(url));  // not asked yet
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_TRUE(loopUntil([&] { return Platform::application()->canOpenURL(url); }));
    norv_gtk_uninstall();
    Platform::setApplication(nullptr);
}

// Tasks still waiting for the GTK loop when the adapter goes run before any newer task and
// never beside one, while another thread keeps adding tasks.
TEST(GtkAdapter, AtUninstallTheTasksLeftOnTheLoopRunFirstAndOneAtATime) {
    gtk_init();
    ASSERT_EQ(norv_gtk_install(), 1);
    Testing::QueueOrderProbe probe;
    probe.queue(20);  // handed to the GTK loop, which does not turn before the adapter goes
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    probe.startAdding();
    norv_gtk_uninstall();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    probe.stopAdding();
    EXPECT_FALSE(probe.overlapped());
    EXPECT_TRUE(probe.ranInOrder(20));
}

}  // namespace
}  // namespace NorvAnalytic
