// Main window, "Configuration" tab: every edit of a setup widget is sent at once as the whole
// record, then read back so that the widgets show what the device accepted.
#include "ui/MainWindow.h"

#include "mrl/utils/Exception.h"
#include "ui_MainWindow.h"

#include <QSignalBlocker>

#include <functional>
#include <vector>

namespace OrviaGonioManager::Ui {

using Com::GnxLink;

namespace {

// The read-back runs after a refused write too, so that the widgets show what the device holds
// and the next edit does not send the refused value again; the write's failure is reported.
void writeThenReadBack(const std::function<void()>& write, const std::function<void()>& readBack)
{
    try {
        write();
    } catch (const MRL::Utils::Exception&) {
        try {
            readBack();
        } catch (const MRL::Utils::Exception&) {
            // The link is gone: the write's own error says why.
        }
        throw;
    }
    readBack();
}

} // namespace

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
    // The slider cannot show every contrast the device may hold: an untouched one is sent as read.
    const QSlider* contrast = ui_->horizontalSliderSetupSoftwareConstrast;
    const bool contrastUntouched =
        contrast->value() == qBound(contrast->minimum(), int(deviceContrast_), contrast->maximum());
    s.contrast = contrastUntouched ? deviceContrast_ : quint16(contrast->value());
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
    deviceContrast_ = s.contrast;
    ui_->checkBoxSetupSoftwareGpsAcquisition->setChecked(s.gpsAcquisition);
    ui_->spinBoxSetupSoftwareDirectionOffset->setValue(s.directionOffset);
    ui_->comboBoxSetupSoftwareCoordType->setCurrentIndex(int(s.coordType));
    ui_->comboBoxSetupSoftwareDistType->setCurrentIndex(int(s.distType));
    ui_->widgetSoftwareSetupDateTime->setDateTime(MRL::Utils::DateTime::fromMjd(s.mjd, s.secondsOfDay));
    ui_->comboBoxSetupSoftwareOrviaBand->setCurrentIndex(int(s.band));
    ui_->checkBoxSetupSoftwareAllToFavorites->setChecked(s.allToFavorites);
    guiRefreshing_ = false;
    showRxCoordinates(s.coordType);
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

// Nothing was read from a receiver in bootloader mode: no value from an earlier one is left.
void MainWindow::clearSetups()
{
    guiRefreshing_ = true;
    std::vector<QSignalBlocker> blockers;
    for (QWidget* w : softwareSetupWidgets() + hardwareSetupWidgets()) {
        blockers.emplace_back(w);
        if (auto* box = qobject_cast<QCheckBox*>(w))
            box->setChecked(false);
        else if (auto* combo = qobject_cast<QComboBox*>(w))
            combo->setCurrentIndex(-1);
        else if (auto* spin = qobject_cast<QSpinBox*>(w))
            spin->setValue(0);
        else if (auto* edit = qobject_cast<QLineEdit*>(w))
            edit->clear();
    }
    ui_->horizontalSliderSetupSoftwareConstrast->setValue(0);
    ui_->widgetSoftwareSetupDateTime->setDateTime(MRL::Utils::DateTime());
    deviceContrast_ = 0;
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
        writeThenReadBack([&] { gnxLink_->setSetupSoftware(setupSoftwareFromWidgets()); },
                          [&] { readBackSetupSoftware(); });
    });
}

void MainWindow::slotSetTime()
{
    guard([&] {
        const MRL::Utils::DateTime dt = ui_->widgetSoftwareSetupDateTime->dateTime();
        writeThenReadBack([&] { gnxLink_->setTime(dt.mjd(), dt.secondsOfDay()); },
                          [&] { readBackSetupSoftware(); });
    });
}

void MainWindow::slotSetSetupHardware()
{
    guard([&] {
        writeThenReadBack([&] { gnxLink_->setSetupHardware(setupHardwareFromWidgets()); },
                          [&] { readBackSetupHardware(); });
    });
}

// Not while the window itself writes the widgets, nor while a script is recorded.
void MainWindow::readBackSetupSoftware()
{
    if (!guiRefreshing_)
        refreshSetupSoftware();
}

void MainWindow::readBackSetupHardware()
{
    if (!guiRefreshing_)
        refreshSetupHardware();
}

} // namespace OrviaGonioManager::Ui
