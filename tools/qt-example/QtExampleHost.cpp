// norv-qt-example-host: a Qt Widgets host. One window whose buttons send events; the app-open
// event it reports at start-up brings up the update alert when the collector offers a version.
#include <NorvAnalytic/NorvAnalytic.h>
#include <NorvAnalytic/QtAdapter.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QLabel>
#include <QMessageBox>
#include <QPainter>
#include <QPushButton>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>
#include <cstdio>
#include <functional>
#include <utility>
#include <vector>

using namespace NorvAnalytic;

namespace {

// Saves the part of the screen that holds the window and the alert over it, then quits.
void photographTheAlert(QWidget& window, const QString& file) {
    auto* poll = new QTimer(&window);
    QObject::connect(poll, &QTimer::timeout, &window, [&window, poll, file] {
        auto* box = window.findChild<QMessageBox*>();
        if (box == nullptr || !box->isVisible()) {
            return;
        }
        poll->stop();
        // A moment for the box to be painted before the picture is taken.
        QTimer::singleShot(500, &window, [&window, box, file] {
            const QRect area = window.frameGeometry().united(box->frameGeometry());
            QPixmap shot =
                window.screen()->grabWindow(0, area.x(), area.y(), area.width(), area.height());
            // Without a window manager (Xvfb) the box has no frame: outline where it lies.
            QPainter painter(&shot);
            painter.setPen(window.palette().color(QPalette::Dark));
            painter.drawRect(
                box->frameGeometry().translated(-area.topLeft()).adjusted(0, 0, -1, -1));
            painter.end();
            QCoreApplication::exit(shot.save(file) ? 0 : 1);
        });
    });
    poll->start(50);
    QTimer::singleShot(20000, &window, [] {
        std::fputs("norv-qt-example-host: no alert within 20 s\n", stderr);
        QCoreApplication::exit(1);
    });
}

}  // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    const QCommandLineOption url("url", "Collection URL (default: the SDK's).", "URL");
    const QCommandLineOption picture(
        "screenshot", "Save the window with the update alert to FILE, then quit.", "FILE");
    parser.addOptions({url, picture});
    parser.process(application);

    if (!QtAdapter::install()) {
        return 1;
    }
    Bundle::setMainBundle(std::make_shared<Bundle>(
        "com.example.NorvQtHost",
        Bundle::InfoDictionary{{"CFBundleShortVersionString", "2.3"}, {"CFBundleVersion", "41"}}));
    NorvAnalytics::initWithKey(std::string("demo-app-key"));
    NorvAnalytics::setSecureUrl(false);
    NorvAnalytics::checkUpdates(true);
    if (parser.isSet(url)) {
        NorvAnalytics::sharedController().setUrlString(parser.value(url).toStdString());
    }

    QWidget window;
    window.setWindowTitle("Orders");
    auto* layout = new QVBoxLayout(&window);
    layout->addWidget(new QLabel("Each button sends one event to the collector."));
    const std::vector<std::pair<QString, std::function<void()>>> buttons = {
        {"Open the app", [] { NorvAnalytics::sendAppOpenEvent(); }},
        {"Show the Orders page",
         [] { NorvAnalytics::sendEventWithPageName(std::string("Orders")); }},
        {"Log in as ann",
         [] {
             NorvAnalytics::sendUserLoginEventWithParameters(
                 std::string("user=ann"), std::string("200 OK"), std::string("ann"),
                 std::string("North"));
         }},
        {"Log out", [] { NorvAnalytics::sendUserLogoutEvent(); }},
    };
    for (const auto& [title, send] : buttons) {
        auto* button = new QPushButton(title);
        QObject::connect(button, &QPushButton::clicked, send);
        layout->addWidget(button);
    }
    window.resize(460, 300);
    window.show();
    window.activateWindow();
    NorvAnalytics::sendAppOpenEvent();

    if (parser.isSet(picture)) {
        photographTheAlert(window, parser.value(picture));
    }
    return application.exec();
}
