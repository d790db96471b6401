#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/QtAdapter.h>
#include <NorvAnalytic/URL.h>
#include <gtest/gtest.h>

#include <QApplication>
#include <QDesktopServices>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QThread>
#include <chrono>

#include "support/FakeKeychainBackend.h"
#include "support/RecordingHttpClient.h"
#include "support/SlowDesktop.h"

namespace NorvAnalytic {
namespace {

using Lines = std::vector<std::string>;

// Stands in for the desktop's browser: what QDesktopServices is asked to open.
class Browser : public QObject {
    Q_OBJECT
public:
    Lines opened;
public slots:
    void open(const QUrl& url) { opened.push_back(url.toString().toStdString()); }
};

TEST(QtAdapter, TheAlertIsAModalBoxOverTheActiveWindowDrivenFromTheGuiThread) {
    EXPECT_FALSE(QtAdapter::install());  // no QApplication yet
    int argc = 1;
    char name[] = "qt_adapter_test";
    char* argv[] = {name, nullptr};
    QApplication application(argc, argv);
    ASSERT_TRUE(QtAdapter::install());
    ASSERT_TRUE(QtAdapter::install());
    Browser browser;
    QDesktopServices::setUrlHandler("https", &browser, "open");
    Bundle::setMainBundle(std::make_shared<Bundle>(
        "com.example.host", Bundle::InfoDictionary{{"CFBundleShortVersionString", "1.0"}}));
    auto http = std::make_shared<Testing::RecordingHttpClient>();
    Platform::setHttpClient(http);
    Platform::setKeychainBackend(std::make_shared<Testing::FakeKeychainBackend>());
    std::vector<bool> answeredOnGuiThread;  // one per answer's console line
    Platform::setLogSink([&](const std::string&) {
        answeredOnGuiThread.push_back(QThread::currentThread() == application.thread());
    });
    QWidget window;
    window.show();
    window.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window));
    NorvAnalytics::initWithKey("key");
    NorvAnalytics::checkUpdates(true);
    const auto answerAppOpen = [&](const std::string& versions) {
        const std::size_t lines = answeredOnGuiThread.size();
        NorvAnalytics::sendAppOpenEvent();
        // The event reaches the client on the SDK's own thread.
        const std::string answer = R"({"payload":{"analytics_enabled":true,)" + versions + "}}";
        EXPECT_TRUE(QTest::qWaitFor([&] { return http->answerAll(200, answer) > 0; }));
        EXPECT_TRUE(QTest::qWaitFor([&] { return answeredOnGuiThread.size() > lines; }));
        return window.findChildren<QMessageBox*>();
    };

    const std::string offer = R"("force_version":null,"offer_version":{"no":"2.0","download_url":)"
                              R"("https://dl.example.com/m.plist"})";
    auto boxes = answerAppOpen(offer);
    ASSERT_EQ(boxes.size(), 1);
    EXPECT_TRUE(boxes[0]->isVisible() && boxes[0]->isModal());
    EXPECT_EQ(boxes[0]->text().toStdString(), "New Update Available!");
    // In the alert's order: Update the default button, Cancel the escape button.
    EXPECT_EQ(boxes[0]->buttons(),
              (QList<QAbstractButton*>{boxes[0]->defaultButton(), boxes[0]->escapeButton()}));
    EXPECT_EQ(boxes[0]->defaultButton()->text() + boxes[0]->escapeButton()->text(), "UpdateCancel");
    EXPECT_EQ(answerAppOpen(offer), boxes);  // nothing new while it shows
    boxes[0]->defaultButton()->click();
    EXPECT_TRUE(QTest::qWaitFor([&] { return window.findChildren<QMessageBox*>().empty(); }));
    EXPECT_EQ(browser.opened, Lines{"https://dl.example.com/m.plist"});

    window.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window));
    boxes = answerAppOpen(R"("force_version":{"no":"3.0","download_url":"https://x.test/f"})");
    ASSERT_EQ(boxes.size(), 1);
    EXPECT_EQ(boxes[0]->buttons().size(), 1);
    QTest::keyClick(boxes[0], Qt::Key_Escape);
    boxes[0]->close();
    QCoreApplication::processEvents();
    EXPECT_TRUE(boxes[0]->isVisible());  // a forced update stays up
    EXPECT_EQ(browser.opened.size(), 1);
    EXPECT_EQ(answeredOnGuiThread, (std::vector<bool>{true, true, true}));
    QDesktopServices::unsetUrlHandler("https");
}

TEST(QtAdapter, TheGuiThreadNeverWaitsForTheDesktop) {
    Platform::setApplication(std::make_shared<Testing::SlowDesktop>());
    int argc = 1;
    char name[] = "qt_adapter_test";
    char* argv[] = {name, nullptr};
    QApplication application(argc, argv);
    ASSERT_TRUE(QtAdapter::install());
    const URL url = *URL::URLWithString("x-test://a");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Platform::application()->canOpenURL(url));  // not asked yet
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_TRUE(QTest::qWaitFor([&] { return Platform::application()->canOpenURL(url); }));
}

}  // namespace
}  // namespace NorvAnalytic

#include "QtAdapterTest.moc"
