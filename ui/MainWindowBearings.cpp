// Main window: the Bearings window, opened from the tool bar and fed by the RX table's model.
#include "ui/BearingsWindow.h"
#include "ui/MainWindow.h"
#include "ui_MainWindow.h"

#include <QAction>
#include <QToolBar>

namespace OrviaGonioManager::Ui {

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
}

BearingsWindow* MainWindow::bearingsWindow()
{
    if (!bearingsWindow_)
        bearingsWindow_ = new BearingsWindow(rxModel_, ui_->spinBoxSetupSoftwareDirectionOffset, this);
    return bearingsWindow_;
}

} // namespace OrviaGonioManager::Ui
