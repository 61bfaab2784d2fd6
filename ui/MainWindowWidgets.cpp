// Main window: the widget-to-slot connections that exist only while a device is connected, so
// that resetting the widgets when unconnected sends nothing to a device.
#include "ui/MainWindow.h"

#include "mrl/ui/DateTimeWidget.h"
#include "ui_MainWindow.h"

namespace OrviaGonioManager::Ui {

void MainWindow::connectWidgets()
{
    disconnectWidgets();
    auto& c = widgetConnections_;
    c << connect(ui_->pushButtonSwitchMode, &QPushButton::clicked, this, &MainWindow::slotSwitchMode);
    c << connect(ui_->pushButtonUpdateFirmware, &QPushButton::clicked, this, &MainWindow::slotUpdateFirmware);

    for (QCheckBox* box :
         {ui_->checkBoxSetupSoftwareAudio, ui_->checkBoxSetupSoftwareBacklight,
          ui_->checkBoxSetupSoftwareGpsAcquisition, ui_->checkBoxSetupSoftwareAllToFavorites})
        c << connect(box, &QCheckBox::toggled, this, &MainWindow::slotSetSetupSoftware);
    c << connect(ui_->horizontalSliderSetupSoftwareConstrast, &QSlider::valueChanged, this,
                 &MainWindow::slotSetSetupSoftware);
    c << connect(ui_->spinBoxSetupSoftwareDirectionOffset, &QSpinBox::valueChanged, this,
                 &MainWindow::slotSetSetupSoftware);
    for (QComboBox* combo : {ui_->comboBoxSetupSoftwareCoordType, ui_->comboBoxSetupSoftwareDistType,
                             ui_->comboBoxSetupSoftwareOrviaBand})
        c << connect(combo, &QComboBox::currentIndexChanged, this, &MainWindow::slotSetSetupSoftware);
    c << connect(ui_->widgetSoftwareSetupDateTime, &MRL::Ui::DateTimeWidget::sigDateTimeChanged, this,
                 &MainWindow::slotSetTime);

    for (QComboBox* combo : {ui_->comboBoxHardwareDirectionMode, ui_->comboBoxHardwareAntennaMode,
                             ui_->comboBoxHardwareAntennaPosition, ui_->comboBoxHardwareCompassMode})
        c << connect(combo, &QComboBox::currentIndexChanged, this, &MainWindow::slotSetSetupHardware);
    c << connect(ui_->spinBoxHardwareCableLength, &QSpinBox::valueChanged, this,
                 &MainWindow::slotSetSetupHardware);
    c << connect(ui_->lineEditHardwareDeclination, &QLineEdit::editingFinished, this,
                 &MainWindow::slotSetSetupHardware);
    c << connect(ui_->checkBoxHardwareProximityMode, &QCheckBox::toggled, this,
                 &MainWindow::slotSetSetupHardware);

    const auto click = [&](QPushButton* button, auto slot) {
        c << connect(button, &QPushButton::clicked, this, slot);
    };
    click(ui_->pushButtonPlatformsReload, &MainWindow::slotGetPlatformsInfo);
    click(ui_->pushButtonPlatformsImport, &MainWindow::slotImportPlatformsInfo);
    click(ui_->pushButtonPlatformsExport, &MainWindow::slotExportPlatformsInfo);
    click(ui_->pushButtonPlatformsDeleteAll, &MainWindow::slotDeleteAllPlatforms);
    c << connect(ui_->tableWidgetPlatforms, &QTableWidget::itemSelectionChanged, this,
                 &MainWindow::slotDisplayPlatformsInfo);
    click(ui_->pushButtonPlatformsSave, &MainWindow::slotSavePlatformsInfo);
    click(ui_->pushButtonPlatformsCreate, &MainWindow::slotCreatePlatformsInfo);
    click(ui_->pushButtonPlatformsDelete, &MainWindow::slotDeletePlatformsInfo);
    click(ui_->pushButtonGpsFormatsReload, &MainWindow::slotReloadGpsFormatsFile);
    click(ui_->pushButtonGpsFormatsSaveFile, &MainWindow::slotSaveGpsFormatsFile);
    c << connect(ui_->tableWidgetGpsFormats, &QTableWidget::itemSelectionChanged, this,
                 &MainWindow::slotDisplayGpsFormatsInfo);
    click(ui_->pushButtonGpsFormatsSave, &MainWindow::slotSaveGpsFormats);
    click(ui_->pushButtonGpsFormatsDelete, &MainWindow::slotDeleteGpsFormats);
    click(ui_->pushButtonGpsFormatsCreate, &MainWindow::slotCreateGpsFormats);

    c << connect(ui_->checkBoxRxLive, &QCheckBox::toggled, this, &MainWindow::slotSetLiveRxEnabled);
    c << connect(ui_->lineEditRxIdFilter, &QLineEdit::textChanged, this, &MainWindow::slotFilterRxTable);
    click(ui_->pushButtonRxClearSelection, &MainWindow::slotClearSelectionRxTable);
    click(ui_->pushButtonRxClearTable, &MainWindow::slotClearRxTable);
    click(ui_->pushButtonRxExport, &MainWindow::slotExportRxTable);
    click(ui_->pushButtonRxFlashRead, &MainWindow::slotReadFlashMemory);
    click(ui_->pushButtonRxFlashErase, &MainWindow::slotEraseFlashMemory);

    click(ui_->pushButtonTerminalSend, &MainWindow::slotSendManualGnxCmd);
    c << connect(ui_->lineEditTerminalCommand, &QLineEdit::returnPressed, this,
                 &MainWindow::slotSendManualGnxCmd);
    click(ui_->pushButtonTerminalSaveScript, &MainWindow::slotTerminalSaveScript);
    click(ui_->pushButtonTerminalScript, &MainWindow::slotTerminalScript);

    c << connect(ui_->pushButtonStatusRefresh, &QPushButton::clicked, this, &MainWindow::slotRefreshStatus);
    c << connect(ui_->pushButtonTerminalReloadGui, &QPushButton::clicked, this,
                 &MainWindow::slotRefreshGuiInfos);
}

void MainWindow::disconnectWidgets()
{
    for (const QMetaObject::Connection& connection : std::as_const(widgetConnections_))
        disconnect(connection);
    widgetConnections_.clear();
}

} // namespace OrviaGonioManager::Ui
