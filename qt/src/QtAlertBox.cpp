#include "QtAlertBox.h"

#include <QCloseEvent>
#include <QKeyEvent>
#include <QPushButton>

namespace NorvAnalytic {

namespace {

QString qtText(const Text& value) { return value ? QString::fromStdString(*value) : QString(); }

}  // namespace

QtAlertBox::QtAlertBox(std::shared_ptr<AlertController> alert, QWidget* parent)
    : QMessageBox(parent), alert_(std::move(alert)) {
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowModality(Qt::WindowModal);
    setWindowTitle(qtText(alert_->title()));
    setText(qtText(alert_->title()));
    setInformativeText(qtText(alert_->message()));
    const auto& actions = alert_->actions();
    for (std::size_t index = 0; index < actions.size(); ++index) {
        const auto& action = actions[index];
        // One role for all keeps the buttons in the alert's order on every desktop's layout.
        QPushButton* button =
            addButton(QString::fromStdString(action->title()), QMessageBox::ActionRole);
        if (action->style() == AlertActionStyle::Cancel) {
            setEscapeButton(button);
        } else if (defaultButton() == nullptr) {
            setDefaultButton(button);
        }
        connect(button, &QPushButton::clicked, this,
                [alert = alert_, index] { alert->tapActionAtIndex(index); });
    }
    alert_->setOnScreen(true);
}

QtAlertBox::~QtAlertBox() {
    // Gone without a press (its window was closed): the next update may show a new alert.
    alert_->setOnScreen(false);
}

void QtAlertBox::keyPressEvent(QKeyEvent* event) {
    // Without a cancel button Esc would press the only button left: a forced update stays up.
    if (event->key() == Qt::Key_Escape && escapeButton() == nullptr) {
        event->ignore();
        return;
    }
    QMessageBox::keyPressEvent(event);
}

void QtAlertBox::closeEvent(QCloseEvent* event) {
    if (escapeButton() == nullptr) {
        event->ignore();
        return;
    }
    QMessageBox::closeEvent(event);
}

}  // namespace NorvAnalytic
