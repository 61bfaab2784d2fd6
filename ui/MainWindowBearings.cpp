// Main window: the Bearings window, opened from the tool bar and fed by the RX table's model.
#include "ui/BearingsWindow.h"
#include "ui/MainWindow.h"
#include "ui_MainWindow.h"

#include <QAction>
#include <QToolBar>

namespace OrviaGonioManager::Ui {

using Com::GnxLink;

void MainWindow::setUpBearings(QToolBar* toolBar)
{
    bearingsAction_ = toolBar->addAction(QStringLiteral("Bearings"));
    bearingsAction_->setObjectName(QStringLiteral("actionBearings"));
    bearingsAction_->setToolTip(
        QStringLiteral("Compass, map, fixes from bearings and antenna check of the RX table's messages"));
    connect(bearingsAction_, &QAction::triggered, this, [this] {
        BearingsWindow* w = bearingsWindow();
        w->show();
        w->raise();
        w->activateWindow();
    });
    setUpHistory(toolBar);
}

BearingsWindow* MainWindow::bearingsWindow()
{
    if (!bearingsWindow_) {
        bearingsWindow_ = new BearingsWindow(rxModel_, ui_->spinBoxSetupSoftwareDirectionOffset,
                                             ui_->comboBoxSetupSoftwareDistType, this);
        updateBearingsApply();
    }
    return bearingsWindow_;
}

// The angle offset reaches a receiver only through its software setup: one that is connected and
// in application mode.
void MainWindow::updateBearingsApply()
{
    if (!bearingsWindow_)
        return;
    if (connectedPort_.isEmpty())
        bearingsWindow_->setSetupBlocked(
            QStringLiteral("Connect a receiver to apply the offset to its setup"));
    else if (deviceInfo_.mode == GnxLink::GNX_BL)
        bearingsWindow_->setSetupBlocked(QStringLiteral(
            "The receiver is in firmware update mode: switch back to standard mode to apply the offset"));
    else
        bearingsWindow_->setSetupBlocked({});
}

} // namespace OrviaGonioManager::Ui
