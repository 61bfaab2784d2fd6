// Main window, "RX" tab: received messages, live or read back from flash memory.
#include "ui/MainWindow.h"

#include "ui_MainWindow.h"
#include "utils/FlashMemory.h"

namespace OrviaGonioManager::Ui {

void MainWindow::slotSetLiveRxEnabled(bool) {}
void MainWindow::slotClearRxTable() {}
void MainWindow::slotExportRxTable() {}
void MainWindow::slotReadFlashMemory() {}
void MainWindow::slotEraseFlashMemory() {}
void MainWindow::slotOrviaMessageReceived(Com::OrviaRxMessage_t, Com::GnxLink::RxOrigin_t) {}
void MainWindow::slotFilterRxTable() {}
void MainWindow::slotClearSelectionRxTable() {}

} // namespace OrviaGonioManager::Ui
