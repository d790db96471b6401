#pragma once

#include <NorvAnalytic/Export.h>

namespace NorvAnalytic {

// Runs the SDK inside a Qt Widgets application (library NorvAnalyticQt, package component Qt,
// target NorvAnalytic::Qt).
//
// After install():
// - the main queue runs on Qt's event loop, so answers, the resend timer and the update alert
//   run on the GUI thread, and any call of ours from that thread runs at once;
// - the update alert is a modal QMessageBox over the active window, with the alert's title,
//   message and buttons in the alert's order ("Update" the default button, "Cancel" the escape
//   button); a forced alert has no escape: Esc and closing leave it up;
// - links open through QDesktopServices, so through the desktop's URL handlers. The SDK hands
//   over the update link "itms-services://?action=download-manifest&url=X" exactly as it makes
//   it; no Linux handler knows that scheme, so this adapter opens X, the manifest's address,
//   instead. A link that nothing handles does nothing, without waiting;
// - canOpenURL asks the desktop's registry of scheme handlers (xdg-mime), which takes tens of
//   milliseconds on the GUI thread.
// When the QApplication is destroyed, the main queue returns to the SDK's own thread.
class NORVANALYTIC_EXPORT QtAdapter {
public:
    // Call once on the GUI thread after the QApplication exists, before initWithKey. True when
    // the adapter is in place (a second call changes nothing); false, with a qWarning() saying
    // why, when there is no QApplication yet or the caller is not on its GUI thread.
    static bool install();

    QtAdapter() = delete;
};

}  // namespace NorvAnalytic
