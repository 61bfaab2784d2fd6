// Main window: the History window, opened from the tool bar beside "Bearings"; it reads the
// message store and needs no receiver.
#include "ui/HistoryWindow.h"
#include "ui/MainWindow.h"
#include "ui_MainWindow.h"

#include <QAction>
#include <QToolBar>

namespace OrviaGonioManager::Ui {

void MainWindow::setUpHistory(QToolBar* toolBar)
{
    historyAction_ = toolBar->addAction(QStringLiteral("History"));
    historyAction_->setObjectName(QStringLiteral("actionHistory"));
    historyAction_->setToolTip(QStringLiteral("The messages kept in the message store: search, show in "
                                              "Bearings, export"));
    connect(historyAction_, &QAction::triggered, this, [this] {
        HistoryWindow* w = historyWindow();
        w->show();
        w->raise();
        w->activateWindow();
    });
}

HistoryWindow* MainWindow::historyWindow()
{
    if (!historyWindow_)
        historyWindow_ = new HistoryWindow(ui_->spinBoxSetupSoftwareDirectionOffset,
                                           ui_->comboBoxSetupSoftwareDistType, this);
    return historyWindow_;
}

} // namespace OrviaGonioManager::Ui
