// Main window: port actions, connection and disconnection sequences, status refresh.
#include "ui/MainWindow.h"

#include "com/ComManager.h"
#include "com/EnumTexts.h"
#include "mrl/utils/Exception.h"
#include "ui_MainWindow.h"
#include "utils/JobProgress.h"

#include <QAction>
#include <QDateTime>
#include <QDebug>
#include <QFileInfo>
#include <QLabel>
#include <QMetaEnum>
#include <QScopedValueRollback>
#include <QSysInfo>
#include <QTimer>
#include <QToolBar>
#include <QToolButton>

namespace OrviaGonioManager::Ui {

using Com::GnxLink;

QString MainWindow::portLabel(const QString& portName) const
{
    if (QSysInfo::productType() == QLatin1String("windows"))
        return portName;
    // Ports from GNX_EXTRA_PORTS are already paths.
    const QString device =
        portName.startsWith(QLatin1Char('/')) ? portName : QStringLiteral("/dev/") + portName;
    const QFileInfo info(device);
    if (info.exists() && !info.isWritable())
        return QStringLiteral("%1 (Warning: only root and users of %2 group can use this port)")
            .arg(portName, info.group());
    return portName;
}

void MainWindow::slotGnxDetected(QString portName)
{
    guard([&] {
        const QString text = portLabel(portName);
        if (QAction* old = portActions_.take(portName)) {
            ui_->mainToolBar_->removeAction(old);
            old->deleteLater();
        }
        auto* action = new QAction(QIcon(QStringLiteral(":/Icons/GNX")), text, this);
        portActions_.insert(portName, action);
        action->setToolTip(QStringLiteral("Connect to GNX @%1").arg(portName));
        action->setCheckable(true);
        ui_->mainToolBar_->addAction(action);
        // The text tells receivers apart and carries the permission warning.
        if (auto* button = qobject_cast<QToolButton*>(ui_->mainToolBar_->widgetForAction(action)))
            button->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
        connect(action, &QAction::triggered, this,
                [this, portName](bool checked) { guard([&] { connectToggled(portName, checked); }); });
        reconnectIfLost(portName);
    });
    updateNoReceiverLabel();
}

void MainWindow::slotGnxRemoved(QString portName)
{
    guard([&] {
        if (!connectedPort_.isEmpty() && portName == connectedPort_) {
            rememberLostReceiver();
            gnxDisconnected(portName, QStringLiteral("GNX disconnected"), false);
        }
        if (QAction* action = portActions_.take(portName)) {
            ui_->mainToolBar_->removeAction(action);
            action->deleteLater();
        }
    });
    updateNoReceiverLabel();
}

void MainWindow::setUpNoReceiverLabel()
{
    noReceiverLabel_ = new QLabel(
        QStringLiteral("No receiver found: plug one in (the package's udev rule 70-orvia-gonio-manager.rules "
                       "grants access to it) or start with GNX_EXTRA_PORTS=<port path>[:<path>...] for "
                       "other serial ports."),
        this);
    noReceiverLabel_->setObjectName(QStringLiteral("labelNoReceiver"));
    noReceiverLabel_->setToolTip(
        QStringLiteral("The Debian package installs /usr/lib/udev/rules.d/70-orvia-gonio-manager.rules: "
                       "after \"udevadm control --reload\" and a replug, a GNX receiver can be opened "
                       "without root.\nGNX_EXTRA_PORTS lists serial device paths, separated by \":\", "
                       "offered as receivers whatever their USB identifiers, each while its path exists."));
    // A long text must not make the window wider: it is cut, the tool tip has it whole.
    noReceiverLabel_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    noReceiverLabel_->setVisible(false); // until the first scan has looked
    ui_->statusBar->addWidget(noReceiverLabel_, 1);
}

void MainWindow::updateNoReceiverLabel()
{
    noReceiverLabel_->setVisible(portActions_.isEmpty());
}

void MainWindow::connectToggled(const QString& portName, bool checked)
{
    if (!checked && portName == connectedPort_) {
        gnxDisconnected(portName, QStringLiteral("Disconnect by user"), false);
        return;
    }
    if (!checked)
        return;
    if (!connectedPort_.isEmpty() && connectedPort_ != portName) {
        if (QAction* other = portActions_.value(connectedPort_))
            other->setChecked(false);
        gnxDisconnected(connectedPort_, QStringLiteral("Disconnection of currently connected GNX"), false);
    }
    if (QAction* action = portActions_.value(portName))
        action->setChecked(true);
    gnxConnected(portName);
}

void MainWindow::slotGnxConnected(QString portName)
{
    guard([&] { gnxConnected(portName); });
}

void MainWindow::gnxConnected(const QString& portName)
{
    ui_->tabWidget->setCurrentIndex(0);
    qInfo().noquote() << QStringLiteral("Connection of a GNX on %1.").arg(portName);
    qInfo().noquote() << "Loading configuration...";
    gnxLink_->openConnection(portName);
    connectedPort_ = portName;
    connectedIdentity_ = portIdentity(portName);

    try {
        const QScopedValueRollback<bool> connecting(connecting_, true);
        ui_->tabWidget->setEnabled(true);
        setTerminalEnabled(true);
        connectWidgets();
        ui_->lineEditVersionsStatus->setText(
            QStringLiteral("Connected at %1")
                .arg(QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-ddThh:mm:ss"))));

        refreshGuiInfos();
    } catch (const MRL::Utils::Exception& e) {
        // A connection is made whole or not at all. A failed link has said why already, or will
        // at the next port scan; any other failure ends the connection as a failed link does.
        if (!connectionLost(portName))
            gnxDisconnected(portName, e.message(), true);
        return;
    }
    if (connectionLost(portName))
        return;

    sessionLog_.open(SessionLog::defaultDirectory(), logIdentity());
    const QDateTime now = QDateTime::currentDateTime();
    sessionLog_.writeLine(
        QStringLiteral("%1 %2 : USB connection to %3")
            .arg(now.date().toString(Qt::ISODate), now.time().toString(QStringLiteral("HH:mm:ss")),
                 connectedVersion_ == GnxLink::GNX_V1 ? QStringLiteral("GNX134") : QStringLiteral("GNX234")));
    showGenerationWidgets(connectedVersion_ == GnxLink::GNX_V1);
    qInfo().noquote() << "GNX configuration loaded!";
}

// A link failure ends the connection through the disconnection steps, run from the link's report
// or the port scan; or it is about to, once the link was closed.
bool MainWindow::connectionLost(const QString& portName) const
{
    return connectedPort_ != portName || !gnxLink_->isUsable();
}

QString MainWindow::logIdentity() const
{
    // In bootloader mode the serial number is unknown: the port names the device instead.
    if (deviceInfo_.serialNumberPart1.isEmpty() || deviceInfo_.serialNumberPart1 == QLatin1String("UNKNOWN"))
        return SessionLog::fileSafe(connectedPort_);
    return SessionLog::fileSafe(
        QStringLiteral("%1-%2").arg(deviceInfo_.serialNumberPart1, deviceInfo_.serialNumberPart2));
}

void MainWindow::slotGnxDisconnected(QString portName, QString reason)
{
    const bool linkFailure = sender() == gnxLink_;
    guard([&] { gnxDisconnected(portName, reason, linkFailure); });
}

// A receiver pulled out makes its link fail before the port scan misses it: a port that has gone
// ends the session through its removal; a link failing on a port still present is an error.
void MainWindow::linkCompromised(const QString& portName, const QString& message)
{
    job_->cancel(); // a job on a failed link stops before its next request
    if (!gnxLink_->isPortLost()) {
        gnxDisconnected(portName, message, true);
        return;
    }
    gnxLink_->closeConnection();
    comManager_->slotScanComPorts();
    if (connectedPort_ != portName)
        return;
    // The device file may go a moment after the line hangs up: the next scan decides.
    QTimer::singleShot(Com::ComManager::kScanPeriodMs, this, [this, portName, message] {
        guard([&] {
            comManager_->slotScanComPorts();
            if (connectedPort_ == portName && !gnxLink_->isConnected())
                gnxDisconnected(portName, message, true);
        });
    });
}

void MainWindow::gnxDisconnected(const QString& portName, const QString& reason, bool linkFailure)
{
    // A failing link may report more than once; only the first report tears down.
    if (connectedPort_.isEmpty() && !gnxLink_->isConnected())
        return;
    job_->cancel();
    sessionLog_.close();
    ui_->tabWidget->setCurrentIndex(0);
    if (linkFailure)
        qCritical().noquote()
            << QStringLiteral("Error on %1 (%2). Please restart connection.").arg(portName, reason);
    else
        qInfo().noquote() << QStringLiteral("Disconnection of %1 (%2).").arg(portName, reason);
    gnxLink_->closeConnection();
    setUnconnectedState();
}

void MainWindow::setUnconnectedState()
{
    disconnectWidgets();
    connectedPort_.clear();
    connectedIdentity_.clear();
    connectedVersion_ = GnxLink::GNX_UNDEFINEDVERSION;
    deviceInfo_ = GnxLink::GnxDeviceInfo();
    keepHeld_.clear(); // their receiver was never identified
    ui_->lineEditVersionsStatus->setText(QStringLiteral("Not connected"));
    ui_->tabWidget->setCurrentIndex(0);
    ui_->tabWidget->setEnabled(false);
    setTerminalEnabled(false);
    for (QAction* action : std::as_const(portActions_))
        action->setChecked(false);
    updateBearingsApply();
}

void MainWindow::setTerminalEnabled(bool enabled)
{
    const QList<QWidget*> widgets{ui_->lineEditTerminalCommand, ui_->pushButtonTerminalSend,
                                  ui_->pushButtonTerminalSaveScript, ui_->pushButtonTerminalScript,
                                  ui_->pushButtonTerminalReloadGui};
    for (QWidget* w : widgets)
        w->setEnabled(enabled);
}

void MainWindow::showGenerationWidgets(bool gnx134)
{
    const QList<QWidget*> gnx234Only{
        ui_->labelStatusCompassDirection,   ui_->lineEditStatusCompassDirection,
        ui_->labelStatusOrviaBand,          ui_->lineEditStatusOrviaBand,
        ui_->labelPlatformsOrviaBand,       ui_->comboBoxPlatformsOrviaBand,
        ui_->labelPlatformsModulation,      ui_->comboBoxPlatformsModulation,
        ui_->checkBoxPlatformNarrowEnabled, ui_->doubleSpinBoxPlatformsNarrowFrequency,
        ui_->checkBoxHardwareProximityMode};
    for (QWidget* w : gnx234Only)
        w->setVisible(!gnx134);
    ui_->labelPlatformsMeanDirectionValue->setVisible(gnx134);
    ui_->spinBoxPlatformsMeanDirectionValue->setVisible(gnx134);
}

// The bootloader answers identification and the upload commands only: what it cannot answer is
// cleared and disabled.
void MainWindow::showBootloaderMode(bool bootloader)
{
    const QList<QWidget*> application{ui_->groupBoxSoftwareSetup,  ui_->groupBoxHardwareSetup,
                                      ui_->checkBoxRxLive,         ui_->pushButtonRxFlashRead,
                                      ui_->pushButtonRxFlashErase, ui_->pushButtonTerminalSaveScript};
    for (QWidget* w : application)
        w->setEnabled(!bootloader);
    ui_->tabWidget->setTabEnabled(ui_->tabWidget->indexOf(ui_->tabPlatforms), !bootloader);
    if (!bootloader)
        return;
    clearSetups();
    clearPlatformsTable();
    clearGpsFormatsList();
}

void MainWindow::slotRefreshGuiInfos()
{
    guard([&] { refreshGuiInfos(); });
}

void MainWindow::refreshGuiInfos()
{
    // Identification first: it sets the generation that every other read depends on, and a
    // device in bootloader mode answers nothing but identification.
    refreshStatus();
    showBootloaderMode(deviceInfo_.mode == GnxLink::GNX_BL);
    if (deviceInfo_.mode != GnxLink::GNX_BL) {
        refreshSetupSoftware();
        refreshSetupHardware();
        // Reads the formats file, then the platform slots.
        reloadGpsFormatsFile();
    }
    ui_->pushButtonSwitchMode->setText(deviceInfo_.mode == GnxLink::GNX_BL
                                           ? QStringLiteral("Switch back to standard mode...")
                                           : QStringLiteral("Switch to firmware update mode..."));
}

void MainWindow::slotRefreshStatus()
{
    guard([&] { refreshStatus(); });
}

void MainWindow::refreshStatus()
{
    deviceInfo_ = gnxLink_->readDeviceInfo();
    connectedVersion_ = deviceInfo_.version;
    keepReceiverKnown();
    const auto& d = deviceInfo_;
    ui_->lineEditVersionsSerialNumber->setText(
        QStringLiteral("SN/%1-%2").arg(d.serialNumberPart1, d.serialNumberPart2));
    ui_->lineEditVersionsApplication->setText(d.applicationVersion);
    ui_->lineEditVersionsGonio->setText(QStringLiteral("GONIO V%1").arg(int(d.version)));
    ui_->lineEditVersionsGonio->setToolTip(
        QStringLiteral("%1 - %2 - %3").arg(d.applicationVersion, d.fpgaVersion, d.bootloaderVersion));
    ui_->lineEditVersionsBootloader->setText(d.bootloaderVersion);
    ui_->lineEditVersionsMode->setText(
        QString::fromLatin1(QMetaEnum::fromType<GnxLink::GnxMode_t>().valueToKey(d.mode)));
    ui_->lineEditVersionsFpga->setText(d.fpgaVersion);
    ui_->lineEditStatusLatitude->setText(QString::number(d.latitude));
    ui_->lineEditStatusLongitude->setText(QString::number(d.longitude));
    ui_->lineEditStatusCompassDirection->setText(QString::number(d.direction));
    ui_->lineEditStatusTemperature->setText(QString::fromUtf8("%1°C").arg(d.temperature));
    ui_->lineEditStatusVoltage->setText(QString::number(d.voltage));
    ui_->lineEditStatusOrviaBand->setText(Com::EnumTexts::text(d.band));
    updateBearingsApply();
}

} // namespace OrviaGonioManager::Ui
