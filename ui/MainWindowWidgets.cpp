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
