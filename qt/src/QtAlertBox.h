#pragma once

#include <NorvAnalytic/AlertController.h>

#include <QMessageBox>
#include <memory>

namespace NorvAnalytic {

// The SDK's alert as a window-modal message box. It marks the alert on screen while it shows
// and reports the pressed button through tapActionAtIndex.
class QtAlertBox final : public QMessageBox {
public:
    QtAlertBox(std::shared_ptr<AlertController> alert, QWidget* parent);
    ~QtAlertBox() override;

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    std::shared_ptr<AlertController> alert_;
};

}  // namespace NorvAnalytic
