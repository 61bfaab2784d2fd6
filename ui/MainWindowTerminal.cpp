// Main window, "Terminal" tab: typed commands and configuration scripts.
#include "ui/MainWindow.h"

#include "ui_MainWindow.h"

namespace OrviaGonioManager::Ui {

void MainWindow::slotSendManualGnxCmd() {}
void MainWindow::slotTerminalSaveScript() {}
void MainWindow::slotTerminalScript() {}

} // namespace OrviaGonioManager::Ui
