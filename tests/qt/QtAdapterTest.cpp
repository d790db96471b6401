#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/QtAdapter.h>
#include <gtest/gtest.h>

#include <QApplication>
#include <QDesktopServices>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QThread>

#include "support/FakeKeychainBackend.h"
#include "support/RecordingHttpClient.h"

namespace NorvAnalytic {
namespace {

using Lines = std::vector<std::string>;

// Stands in for the desktop's browser: records what QDesktopServices is asked to open.
class UrlRecorder : public QObject {
    Q_OBJECT
public:
    Lines opened;
public slots:
    void open(const QUrl& url) { opened.push_back(url.toString().toStdString()); }
};

struct Host {
    QWidget window;
    UrlRecorder browser;
    std::shared_ptr<Testing::RecordingHttpClient> http =
        std::make_shared<Testing::RecordingHttpClient>();
    std::vector<bool> answeredOnGuiThread;  // one per console line, written on the main queue

    Host() {
        QDesktopServices::setUrlHandler("https", &browser, "open");
        Bundle::setMainBundle(std::make_shared<Bundle>(
            "com.example.host",
            Bundle::InfoDictionary{{"CFBundleShortVersionString", "1.0"}, {"CFBundleVersion", "1"}}));
        Platform::setHttpClient(http);
        Platform::setKeychainBackend(std::make_shared<Testing::FakeKeychainBackend>());
        Platform::setLogSink([this](const std::string&) {
            answeredOnGuiThread.push_back(QThread::currentThread() == qApp->thread());
        });
        window.show();
        window.activateWindow();
        EXPECT_TRUE(QTest::qWaitForWindowActive(&window));
        NorvAnalytics::initWithKey("key");
        NorvAnalytics::checkUpdates(true);
    }

    // An app-open event and its answer; returns once the GUI thread has handled it.
    void answerAppOpen(const std::string& payload) {
        const std::size_t lines = answeredOnGuiThread.size();
        NorvAnalytics::sendAppOpenEvent();
        http->answerAll(200, R"({"payload":{"analytics_enabled":true,)" + payload + "}}");
        EXPECT_TRUE(QTest::qWaitFor([&] { return answeredOnGuiThread.size() > lines; }));
    }

    QList<QMessageBox*> boxes() { return window.findChildren<QMessageBox*>(); }
};

Lines texts(const QList<QAbstractButton*>& buttons) {
    Lines texts;
    for (auto* button : buttons) {
        texts.push_back(button->text().toStdString());
    }
    return texts;
}

TEST(QtAdapter, InstallWantsAQApplicationAndASecondInstallChangesNothing) {
    EXPECT_FALSE(QtAdapter::install());
    static int argc = 1;
    static char name[] = "qt_adapter_test";
    static char* argv[] = {name, nullptr};
    new QApplication(argc, argv);  // lives as long as the process, for the tests that follow
    EXPECT_TRUE(QtAdapter::install());
    EXPECT_TRUE(QtAdapter::install());
}

TEST(QtAdapter, AnOfferedVersionIsABoxOverTheActiveWindowAndUpdateOpensTheManifestOnce) {
    Host host;
    const std::string offer =
        R"("force_version":null,"offer_version":{"no":"2.0","download_url":"https://dl.example.com/m.plist"})";
    host.answerAppOpen(offer);
    ASSERT_EQ(host.boxes().size(), 1);
    QMessageBox* box = host.boxes().front();
    EXPECT_TRUE(box->isVisible() && box->isModal());
    EXPECT_EQ(box->text().toStdString(), "New Update Available!");
    EXPECT_EQ(texts(box->buttons()), (Lines{"Update", "Cancel"}));
    EXPECT_EQ(texts({box->defaultButton(), box->escapeButton()}), (Lines{"Update", "Cancel"}));

    host.answerAppOpen(offer);  // while the box shows: nothing new
    EXPECT_EQ(host.boxes().size(), 1);
    box->defaultButton()->click();
    EXPECT_TRUE(QTest::qWaitFor([&] { return host.boxes().empty(); }));
    EXPECT_EQ(host.browser.opened, Lines{"https://dl.example.com/m.plist"});
    EXPECT_EQ(host.answeredOnGuiThread, (std::vector<bool>{true, true}));
}

TEST(QtAdapter, AForcedVersionHasOneButtonAndEscapeLeavesItUp) {
    Host host;
    host.answerAppOpen(R"("force_version":{"no":"3.0","download_url":"https://dl.example.com/f"})");
    ASSERT_EQ(host.boxes().size(), 1);
    QMessageBox* box = host.boxes().front();
    EXPECT_EQ(texts(box->buttons()), Lines{"Update"});
    QTest::keyClick(box, Qt::Key_Escape);
    box->close();
    QCoreApplication::processEvents();
    EXPECT_TRUE(box->isVisible());
    EXPECT_EQ(host.browser.opened, Lines{});
}

}  // namespace
}  // namespace NorvAnalytic

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

#include "QtAdapterTest.moc"
