#include "QtApplication.h"

#include <QApplication>
#include <QDesktopServices>
#include <QUrl>
#include <string_view>

#include "QtWindow.h"

namespace NorvAnalytic {

namespace {

constexpr std::string_view kManifestLinkPrefix = "itms-services://?action=download-manifest&url=";

}  // namespace

QtApplication::QtApplication(std::shared_ptr<Application> desktop)
    : schemes_(std::move(desktop), "norv-qt-mime") {}

void QtApplication::prefetch(const URL& url) { schemes_.prefetch(url); }

std::shared_ptr<Window> QtApplication::keyWindow() const {
    QWidget* active = QApplication::activeWindow();
    return active ? std::make_shared<QtWindow>(active) : nullptr;
}

bool QtApplication::canOpenURL(const URL& url) { return schemes_.canOpen(url); }

bool QtApplication::openURL(const URL& url) {
    std::string_view link = url.absoluteString();
    // No desktop handles this scheme, but the manifest it points at is an ordinary address.
    if (link.starts_with(kManifestLinkPrefix)) {
        link.remove_prefix(kManifestLinkPrefix.size());
    }
    const QUrl target(QString::fromUtf8(link.data(), static_cast<qsizetype>(link.size())),
                      QUrl::StrictMode);
    return target.isValid() && !target.scheme().isEmpty() && QDesktopServices::openUrl(target);
}

}  // namespace NorvAnalytic
