// Main window, "Favorite platforms" tab: the receiver's favourite platforms and the GPS formats.
#include "ui/MainWindow.h"

#include "ui_MainWindow.h"
#include "utils/GpsFormat.h"

namespace OrviaGonioManager::Ui {

void MainWindow::slotGetPlatformsInfo() {}
void MainWindow::slotImportPlatformsInfo() {}
void MainWindow::slotExportPlatformsInfo() {}
bool MainWindow::slotDeleteAllPlatforms()
{
    return false;
}
void MainWindow::slotDisplayPlatformsInfo() {}
void MainWindow::slotSavePlatformsInfo() {}
void MainWindow::slotCreatePlatformsInfo() {}
void MainWindow::slotDeletePlatformsInfo() {}
void MainWindow::slotReloadGpsFormatsFile() {}
void MainWindow::slotSaveGpsFormatsFile() {}
void MainWindow::slotAddGpsFormat(Utils::GpsFormat_t*) {}
void MainWindow::slotDisplayGpsFormatsInfo() {}
void MainWindow::slotSaveGpsFormats() {}
void MainWindow::slotDeleteGpsFormats() {}
void MainWindow::slotCreateGpsFormats() {}

} // namespace OrviaGonioManager::Ui
