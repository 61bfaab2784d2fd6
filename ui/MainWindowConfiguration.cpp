// Main window, "Configuration" tab: every edit of a setup widget is sent at once as the whole
// record, then read back so that the widgets show what the device accepted.
#include "ui/MainWindow.h"

#include "ui_MainWindow.h"

#include <QSignalBlocker>
#include <vector>

namespace OrviaGonioManager::Ui {

using Com::GnxLink;

QList<QWidget*> MainWindow::softwareSetupWidgets() const
{
    return {ui_->checkBoxSetupSoftwareAudio,
            ui_->checkBoxSetupSoftwareBacklight,
            ui_->horizontalSliderSetupSoftwareConstrast,
            ui_->checkBoxSetupSoftwareGpsAcquisition,
            ui_->spinBoxSetupSoftwareDirectionOffset,
            ui_->comboBoxSetupSoftwareCoordType,
            ui_->comboBoxSetupSoftwareDistType,
            ui_->widgetSoftwareSetupDateTime,
            ui_->comboBoxSetupSoftwareOrviaBand,
            ui_->checkBoxSetupSoftwareAllToFavorites};
}

QList<QWidget*> MainWindow::hardwareSetupWidgets() const
{
    return {ui_->comboBoxHardwareDirectionMode, ui_->spinBoxHardwareCableLength,
            ui_->comboBoxHardwareAntennaMode,   ui_->comboBoxHardwareAntennaPosition,
            ui_->comboBoxHardwareCompassMode,   ui_->lineEditHardwareDeclination,
            ui_->checkBoxHardwareProximityMode};
}

GnxLink::SetupSoftware MainWindow::setupSoftwareFromWidgets() const
{
    GnxLink::SetupSoftware s;
    s.audio = ui_->checkBoxSetupSoftwareAudio->isChecked();
    s.backlight = ui_->checkBoxSetupSoftwareBacklight->isChecked();
    s.contrast = quint16(ui_->horizontalSliderSetupSoftwareConstrast->value());
    s.gpsAcquisition = ui_->checkBoxSetupSoftwareGpsAcquisition->isChecked();
    s.coordType = GnxLink::CoordType_t(qMax(0, ui_->comboBoxSetupSoftwareCoordType->currentIndex()));
    s.distType = GnxLink::DistType_t(qMax(0, ui_->comboBoxSetupSoftwareDistType->currentIndex()));
    s.directionOffset = quint16(ui_->spinBoxSetupSoftwareDirectionOffset->value());
    s.band = GnxLink::OrviaBand_t(qMax(0, ui_->comboBoxSetupSoftwareOrviaBand->currentIndex()));
    s.allToFavorites = ui_->checkBoxSetupSoftwareAllToFavorites->isChecked();
    return s;
}

GnxLink::SetupHardware MainWindow::setupHardwareFromWidgets() const
{
    GnxLink::SetupHardware h;
    h.directionMode = GnxLink::DirectionMode_t(qMax(0, ui_->comboBoxHardwareDirectionMode->currentIndex()));
    h.cableLength = ui_->spinBoxHardwareCableLength->value();
    h.antennaType = GnxLink::AntennaType_t(qMax(0, ui_->comboBoxHardwareAntennaMode->currentIndex()));
    h.antennaPosition =
        GnxLink::AntennaPosition_t(qMax(0, ui_->comboBoxHardwareAntennaPosition->currentIndex()));
    h.compassMode = GnxLink::CompassMode_t(qMax(0, ui_->comboBoxHardwareCompassMode->currentIndex()));
    h.declination = ui_->lineEditHardwareDeclination->text();
    h.proximityMode = ui_->checkBoxHardwareProximityMode->isChecked();
    return h;
}

void MainWindow::showSetupSoftware(const GnxLink::SetupSoftware& s)
{
    // Writing device values into the widgets must not send them back.
    guiRefreshing_ = true;
    std::vector<QSignalBlocker> blockers;
    for (QWidget* w : softwareSetupWidgets())
        blockers.emplace_back(w);
    ui_->checkBoxSetupSoftwareAudio->setChecked(s.audio);
    ui_->checkBoxSetupSoftwareBacklight->setChecked(s.backlight);
    ui_->horizontalSliderSetupSoftwareConstrast->setValue(s.contrast);
    ui_->checkBoxSetupSoftwareGpsAcquisition->setChecked(s.gpsAcquisition);
    ui_->spinBoxSetupSoftwareDirectionOffset->setValue(s.directionOffset);
    ui_->comboBoxSetupSoftwareCoordType->setCurrentIndex(int(s.coordType));
    ui_->comboBoxSetupSoftwareDistType->setCurrentIndex(int(s.distType));
    ui_->widgetSoftwareSetupDateTime->setDateTime(MRL::Utils::DateTime::fromMjd(s.mjd, s.secondsOfDay));
    ui_->comboBoxSetupSoftwareOrviaBand->setCurrentIndex(int(s.band));
    ui_->checkBoxSetupSoftwareAllToFavorites->setChecked(s.allToFavorites);
    guiRefreshing_ = false;
}

void MainWindow::showSetupHardware(const GnxLink::SetupHardware& h)
{
    guiRefreshing_ = true;
    std::vector<QSignalBlocker> blockers;
    for (QWidget* w : hardwareSetupWidgets())
        blockers.emplace_back(w);
    ui_->comboBoxHardwareDirectionMode->setCurrentIndex(int(h.directionMode));
    ui_->spinBoxHardwareCableLength->setValue(h.cableLength);
    ui_->comboBoxHardwareAntennaMode->setCurrentIndex(int(h.antennaType));
    ui_->comboBoxHardwareAntennaPosition->setCurrentIndex(int(h.antennaPosition));
    ui_->comboBoxHardwareCompassMode->setCurrentIndex(int(h.compassMode));
    ui_->lineEditHardwareDeclination->setText(h.declination);
    ui_->checkBoxHardwareProximityMode->setChecked(h.proximityMode);
    guiRefreshing_ = false;
}

void MainWindow::refreshSetupSoftware()
{
    showSetupSoftware(gnxLink_->getSetupSoftware());
}

void MainWindow::refreshSetupHardware()
{
    showSetupHardware(gnxLink_->getSetupHardware());
}

void MainWindow::slotSetSetupSoftware()
{
    guard([&] {
        gnxLink_->setSetupSoftware(setupSoftwareFromWidgets());
        if (!guiRefreshing_)
            refreshSetupSoftware();
    });
}

void MainWindow::slotSetTime()
{
    guard([&] {
        const MRL::Utils::DateTime dt = ui_->widgetSoftwareSetupDateTime->dateTime();
        gnxLink_->setTime(dt.mjd(), dt.secondsOfDay());
        if (!guiRefreshing_)
            refreshSetupSoftware();
    });
}

void MainWindow::slotSetSetupHardware()
{
    guard([&] {
        gnxLink_->setSetupHardware(setupHardwareFromWidgets());
        if (!guiRefreshing_)
            refreshSetupHardware();
    });
}

} // namespace OrviaGonioManager::Ui
