// The main window against the emulator over a pseudo-terminal: detection, connection,
// the session log, configuration edits, disconnections and a firmware update.
#include "com/GnxFrame.h"
#include "common/WindowFixture.h"
#include "sim/Firmware.h"
#include "ui/BearingsWindow.h"
#include "ui/SessionLog.h"
#include "ui/UserSettings.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateTimeEdit>
#include <QLabel>
#include <QLineEdit>
#include <QSignalSpy>
#include <QSlider>
#include <QSpinBox>
#include <QToolButton>

using OrviaGonioManager::Ui::SessionLog;
namespace GnxFrame = OrviaGonioManager::Com::GnxFrame;

namespace {

QString logIdentity(const gnxsim::PtySimulator& sim)
{
    const QStringList parts = sim.serialNumber().split('-');
    return parts.value(0).rightJustified(4, '0') + "-" + parts.value(1);
}

// Lines of a command written with values (not a read with every parameter empty).
QStringList writesOf(const QStringList& lines, const QString& mnemonic)
{
    QStringList writes;
    for (const QString& line : lines) {
        const QStringList fields = line.split(',');
        if (fields.first() != mnemonic)
            continue;
        for (int i = 1; i < fields.size(); ++i)
            if (!fields[i].isEmpty()) {
                writes << line;
                break;
            }
    }
    return writes;
}

} // namespace

class TestMainWindow : public QObject, private WindowFixture
{
    Q_OBJECT

private:
    // Changes a widget's value as a user would: toggle, next entry, next step, new text.
    static void change(QWidget* w)
    {
        if (auto* box = qobject_cast<QCheckBox*>(w))
            box->toggle();
        else if (auto* combo = qobject_cast<QComboBox*>(w))
            combo->setCurrentIndex((combo->currentIndex() + 1) % qMin(combo->count(), 9));
        else if (auto* slider = qobject_cast<QSlider*>(w))
            slider->setValue((slider->value() + 7) % (slider->maximum() + 1));
        else if (auto* spin = qobject_cast<QSpinBox*>(w))
            spin->setValue(spin->value() + 5 > spin->maximum() ? spin->minimum() : spin->value() + 5);
        else if (auto* edit = qobject_cast<QLineEdit*>(w)) {
            edit->setText(edit->text() == "E12.5" ? "W3" : "E12.5");
            emit edit->editingFinished();
        }
    }

    // Each edit sends the whole record built from all widgets (one write), then reads it back;
    // only the edited field changes on the device, and a software edit leaves the clock alone.
    // The widgets come in field order; fields 7 to 11 of the software record are the clock's, and
    // a GNX134's records stop before the last fields.
    void checkEdits(const QList<QWidget*>& widgets, bool gnx134, bool software)
    {
        const int fields = software ? (gnx134 ? 12 : 14) : (gnx134 ? 6 : 7);
        const QString command = software ? "SETUPSW" : "SETUPHW";
        const auto snapshot = [&] { return software ? sim_->softwareSetup() : sim_->hardwareSetup(); };
        for (int w = 0; w < widgets.size(); ++w) {
            const int index = software && w >= 7 ? w + 5 : w; // the field that must change
            if (index >= fields)
                continue;
            const QString name = widgets[w]->objectName();
            const QStringList before = snapshot();
            sim_->clearReceived();
            change(widgets[w]);
            const QStringList after = snapshot();
            const QStringList received = sim_->receivedLines();
            QVERIFY2(received.size() == 2, qPrintable(name + ": " + received.join(" | ")));
            QCOMPARE(writesOf(received, command).size(), 1);
            QCOMPARE(received.last(), command + QString(",").repeated(fields));
            QVERIFY2(after.value(index) != before.value(index), qPrintable(name));
            for (int i = 0; i < after.size(); ++i)
                if (i != index && !(software && i >= 7 && i <= 11))
                    QVERIFY2(after[i] == before[i],
                             qPrintable(QString("%1 changed field %2").arg(name).arg(i)));
        }
    }

private slots:
    void initTestCase() { QVERIFY(setUpWorkDir()); }
    void init() { resetDialogs(); }
    void cleanup() { tearDown(); }

    void connecting_data() { bothModels(); }

    void connecting()
    {
        QFETCH(QString, model);
        const bool gnx134 = model == "gnx134";
        QVERIFY(startSim(sim_, simOptions(model, 2)));
        const QString port = sim_->slavePath();
        const QString logPath = SessionLog::defaultDirectory() + "/Log " + logIdentity(*sim_) + ".txt";
        QFile::remove(logPath);
        QVERIFY(showWindow({port}));
        QCOMPARE(window_->portAction(port)->toolTip(), "Connect to GNX @" + port);
        // The port name, or the permission warning, shows beside the icon.
        const auto* button = ui()->mainToolBar_->widgetForAction(window_->portAction(port));
        QCOMPARE(qobject_cast<const QToolButton*>(button)->toolButtonStyle(), Qt::ToolButtonTextBesideIcon);
        QVERIFY(!ui()->tabWidget->isEnabled());

        LogCapture logs;
        QVERIFY(connectTo(port));
        QCOMPARE(ui()->tableWidgetPlatforms->rowCount(), 2);
        QVERIFY(ui()->tabWidget->isEnabled());
        QCOMPARE(ui()->lineEditVersionsSerialNumber->text(), "SN/" + logIdentity(*sim_));
        QCOMPARE(ui()->lineEditVersionsGonio->text(), gnx134 ? QString("GONIO V1") : QString("GONIO V2"));
        QVERIFY(ui()->lineEditStatusTemperature->text().endsWith(QString::fromUtf8("°C")));
        QVERIFY(!ui()->lineEditVersionsApplication->text().isEmpty());
        QCOMPARE(logs.count(QtInfoMsg, "Connection of a GNX on " + port + "."), 1);
        QCOMPARE(logs.count(QtInfoMsg, "GNX configuration loaded!"), 1);
        // The log table heads the Terminal group, above the command row, and has the start-up's lines.
        QCOMPARE(ui()->verticalLayoutTerminalGroup->indexOf(ui()->tableWidgetLogger), 0);
        QTRY_VERIFY(!ui()->tableWidgetLogger->findItems("Ready!", Qt::MatchExactly).isEmpty());

        // Generation-specific widgets.
        QCOMPARE(ui()->checkBoxHardwareProximityMode->isHidden(), gnx134);
        QCOMPARE(ui()->lineEditStatusOrviaBand->isHidden(), gnx134);
        QCOMPARE(ui()->spinBoxPlatformsMeanDirectionValue->isHidden(), !gnx134);

        const QString sessionLine = QString(" : USB connection to ") + (gnx134 ? "GNX134" : "GNX234");
        QCOMPARE(window_->sessionLogPath(), logPath);
        QByteArray log = readAll(logPath);
        QVERIFY2(log.endsWith(sessionLine.toUtf8() + "\n"), log.constData());
        QCOMPARE(log.count('\n'), 1);

        // Disconnect by the user, then a second session.
        window_->portAction(port)->trigger();
        QCOMPARE(logs.count(QtInfoMsg, "Disconnection of " + port + " (Disconnect by user)."), 1);
        QCOMPARE(ui()->lineEditVersionsStatus->text(), QString("Not connected"));
        QVERIFY(!ui()->tabWidget->isEnabled());
        QVERIFY(!window_->gnxLink()->isConnected());
        // Widgets of a disconnected window send nothing.
        sim_->clearReceived();
        ui()->checkBoxSetupSoftwareAudio->toggle();
        ui()->comboBoxHardwareCompassMode->setCurrentIndex(2);
        ui()->spinBoxHardwareCableLength->setValue(77);
        QCoreApplication::processEvents();
        QCOMPARE(sim_->receivedLines(), QStringList());
        QCOMPARE(dialogs_->criticals, QStringList());

        QVERIFY(connectTo(port));
        log = readAll(logPath);
        const QList<QByteArray> lines = log.split('\n');
        QCOMPARE(lines.size(), 6); // first session, three empty lines, second session, final ""
        QVERIFY(lines[1].isEmpty() && lines[2].isEmpty() && lines[3].isEmpty());
        QVERIFY(lines[4].endsWith(sessionLine.toUtf8()));
    }

    // With no receiver, the status bar tells how to get one: the udev rule and GNX_EXTRA_PORTS. It
    // goes when a receiver is found, and comes back when that one is pulled out.
    void noReceiverNotice()
    {
        gnxsim::Options options = simOptions("gnx234");
        options.linkPath = workDir_.filePath("gnx-notice");
        QVERIFY(showWindow({})); // nothing there yet
        qputenv("GNX_EXTRA_PORTS", options.linkPath.toLocal8Bit());
        const QLabel* notice = window_->noReceiverLabel();
        QTRY_VERIFY(notice->isVisible());
        QCOMPARE(
            notice->text(),
            QString("No receiver found: plug one in (the package's udev rule 70-orvia-gonio-manager.rules "
                    "grants access to it) or start with GNX_EXTRA_PORTS=<port path>[:<path>...] for "
                    "other serial ports."));
        QVERIFY(window_->statusBar()->isAncestorOf(notice));
        // However long, the text does not make the window wider.
        QVERIFY(window_->statusBar()->minimumSizeHint().width() < notice->sizeHint().width());
        for (const QString event : {"plug", "unplug", "replug"}) {
            if (event == "plug")
                QVERIFY(startSim(sim_, options));
            else if (event == "unplug")
                sim_->unplug();
            else
                sim_->replug();
            const bool present = event != "unplug";
            QTRY_VERIFY_WITH_TIMEOUT((window_->portAction(options.linkPath) != nullptr) == present, 10000);
            QCOMPARE(notice->isVisible(), !present);
        }
    }

    void editsReachTheDevice_data() { connecting_data(); }

    void editsReachTheDevice()
    {
        QFETCH(QString, model);
        const bool gnx134 = model == "gnx134";
        QVERIFY(startAndConnect(simOptions(model, 2)));

        checkEdits({ui()->checkBoxSetupSoftwareAudio, ui()->checkBoxSetupSoftwareBacklight,
                    ui()->horizontalSliderSetupSoftwareConstrast, ui()->checkBoxSetupSoftwareGpsAcquisition,
                    ui()->comboBoxSetupSoftwareCoordType, ui()->comboBoxSetupSoftwareDistType,
                    ui()->spinBoxSetupSoftwareDirectionOffset, ui()->comboBoxSetupSoftwareOrviaBand,
                    ui()->checkBoxSetupSoftwareAllToFavorites},
                   gnx134, true);
        if (QTest::currentTestFailed())
            return;
        checkEdits({ui()->comboBoxHardwareDirectionMode, ui()->comboBoxHardwareAntennaPosition,
                    ui()->spinBoxHardwareCableLength, ui()->comboBoxHardwareAntennaMode,
                    ui()->comboBoxHardwareCompassMode, ui()->lineEditHardwareDeclination,
                    ui()->checkBoxHardwareProximityMode},
                   gnx134, false);
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(ui()->lineEditHardwareDeclination->text(), sim_->hardwareSetup().value(5));

        // The date-time widget has its own command, which sets the clock to the minute.
        sim_->clearReceived();
        const QDateTime wanted(QDate(2031, 5, 17), QTime(8, 42), Qt::UTC);
        ui()->widgetSoftwareSetupDateTime->editor()->setDateTime(wanted);
        QCOMPARE(sim_->clock().date(), wanted.date());
        QCOMPARE(sim_->clock().time().hour(), 8);
        QCOMPARE(sim_->clock().time().minute(), 42);
    }

    void refreshingSendsNoWrites()
    {
        QVERIFY(startAndConnect(simOptions("gnx234", 2)));
        // The device reports other values than the widgets show, some beyond what a user may
        // choose: writing them into the widgets must not send them back.
        QStringList other = sim_->softwareSetup();
        other[0] = other[0] == "1" ? "0" : "1";
        other[2] = "100";
        other[6] = "40000";
        QStringList hardware = sim_->hardwareSetup();
        hardware[2] = "1500";
        sim_->overrideNextReply("SETUPSW", other);
        sim_->overrideNextReply("SETUPHW", hardware);
        sim_->clearReceived();
        window_->slotRefreshGuiInfos();
        QCOMPARE(QString::number(ui()->checkBoxSetupSoftwareAudio->isChecked()), other[0]);
        QCOMPARE(ui()->spinBoxSetupSoftwareDirectionOffset->value(), 40000);
        QCOMPARE(ui()->spinBoxHardwareCableLength->value(), 1500);
        const QStringList received = sim_->receivedLines();
        QVERIFY(received.contains(QString("SETUPSW") + QString(",").repeated(14)));
        QCOMPARE(writesOf(received, "SETUPSW"), QStringList());
        QCOMPARE(writesOf(received, "SETUPHW"), QStringList());

        // The next edit of another field sends them as they were read (the contrast slider stops at 40).
        ui()->checkBoxHardwareProximityMode->toggle();
        QCOMPARE(sim_->hardwareSetup()[2], QString("1500"));
        sim_->clearReceived();
        ui()->checkBoxSetupSoftwareBacklight->toggle();
        const QStringList write = writesOf(sim_->receivedLines(), "SETUPSW").value(0).split(',');
        QCOMPARE(write.value(3) + '|' + write.value(7), QString("100|40000"));
    }

    // A refused write is followed by the read-back: the widget shows the device's value again,
    // and the next edit of the group is not refused for it.
    void refusedWriteIsReadBack()
    {
        QVERIFY(startAndConnect(simOptions("gnx234", 2)));
        const QStringList before = sim_->softwareSetup();
        QComboBox* band = ui()->comboBoxSetupSoftwareOrviaBand;
        band->setCurrentIndex(band->findText("INVALID"));
        QCOMPARE(dialogs_->criticals.size(), 1);
        QCOMPARE(QString::number(band->currentIndex()), before[12]);
        ui()->checkBoxSetupSoftwareBacklight->toggle();
        QCOMPARE(dialogs_->criticals.size(), 1);
        QVERIFY(sim_->softwareSetup()[1] != before[1]);

        // A typed value is written once, when it is committed.
        ui()->spinBoxSetupSoftwareDirectionOffset->selectAll();
        sim_->clearReceived();
        QTest::keyClicks(ui()->spinBoxSetupSoftwareDirectionOffset, "123\r");
        QCOMPARE(writesOf(sim_->receivedLines(), "SETUPSW"), QStringList(sim_->receivedLines().first()));
        QCOMPARE(sim_->softwareSetup()[6], QString("123"));
    }

    void secondPortDisconnectsTheFirst()
    {
        QVERIFY(startSim(sim_, simOptions("gnx234", 2)));
        QVERIFY(startSim(sim2_, simOptions("gnx134")));
        const QString first = sim_->slavePath();
        const QString second = sim2_->slavePath();
        QVERIFY(showWindow({first, second}));
        QVERIFY(connectTo(first));

        LogCapture logs;
        QVERIFY(connectTo(second));
        QCOMPARE(logs.count(QtInfoMsg,
                            "Disconnection of " + first + " (Disconnection of currently connected GNX)."),
                 1);
        QVERIFY(!window_->portAction(first)->isChecked());
        QVERIFY(window_->portAction(second)->isChecked());
        QCOMPARE(ui()->lineEditVersionsGonio->text(), QString("GONIO V1"));

        // Two receivers whose labels carry the permission warning both show whole at 1280 pixels.
        window_->resize(1280, 800);
        for (const QString& port : {first, second}) {
            QAction* action = window_->portAction(port);
            action->setText(
                "/dev/ttyUSB10 (Warning: only root and users of dialout group can use this port)");
            const QWidget* button = ui()->mainToolBar_->widgetForAction(action);
            QTRY_VERIFY(button->isVisible() && button->width() >= button->sizeHint().width());
        }
    }

    void linkFailures_data()
    {
        QTest::addColumn<bool>("unplug");
        QTest::addColumn<bool>("reconnect"); // "Reconnect automatically" on, the receiver plugged back
        QTest::newRow("receiver pulled out") << true << false;
        QTest::newRow("link fails, port present") << false << false;
        QTest::newRow("pulled out, back, reconnected") << true << true;
    }

    // A port that goes away ends as its removal does; a link failing on a port still present is
    // an error the user is told of. With "Reconnect automatically" on (off by default, and kept
    // outside the program's settings file), the same receiver plugged back is connected again.
    void linkFailures()
    {
        QFETCH(bool, unplug);
        QFETCH(bool, reconnect);
        // Through a link of its own: a pseudo-terminal's number may be taken again at once by a
        // test running beside this one, while the link goes away with the unplug.
        gnxsim::Options options = simOptions("gnx234", 2);
        options.linkPath = workDir_.filePath("gnx-unplug");
        const QString port = options.linkPath;
        QVERIFY(startSim(sim_, options));
        QVERIFY(showWindow({port}));
        QVERIFY(!window_->reconnectAction()->isChecked());
        window_->reconnectAction()->setChecked(reconnect);
        QVERIFY(connectTo(port));

        LogCapture logs;
        if (unplug)
            sim_->unplug();
        else
            sim_->sendRawBytes("$GSN,1*00\r\n");
        QTRY_VERIFY_WITH_TIMEOUT(window_->connectedPort().isEmpty(), 10000);
        QStringList said; // info and critical
        for (const auto& m : logs.messages)
            if (m.first == QtInfoMsg || m.first == QtCriticalMsg)
                said << m.second;
        const QString badChecksum = "Bad checksum in GNX reply \"$GSN,1*00\": 00 vs " +
                                    GnxFrame::checksumText(GnxFrame::checksum(u"GSN,1*")) + '.';
        QCOMPARE(said, QStringList(unplug ? "Disconnection of " + port + " (GNX disconnected)."
                                          : "Error on " + port + " (" + badChecksum +
                                                "). Please restart connection."));
        QCOMPARE(window_->portAction(port) != nullptr, !unplug);
        if (!reconnect)
            return;
        sim_->replug();
        QTRY_COMPARE_WITH_TIMEOUT(window_->connectedPort(), port, 10000);
        QCOMPARE(logs.count(QtInfoMsg, "Reconnected to " + port), 1);
        QCOMPARE(OrviaGonioManager::Ui::userSettings().value("reconnectAutomatically"), QVariant(true));
    }

    void firmwareUpdate()
    {
        QVERIFY(startAndConnect(simOptions("gnx234", 2)));
        const QString port = sim_->slavePath();
        const QString van =
            writeFile("update.van", gnxsim::Firmware::vanFile(gnxsim::Model::Gnx234, "7.7.7", 30));
        QVERIFY(!van.isEmpty());
        QCOMPARE(ui()->pushButtonSwitchMode->text(), QString("Switch to firmware update mode..."));

        // Switch to the bootloader.
        LogCapture logs;
        dialogs_->answers << QMessageBox::Yes;
        ui()->pushButtonSwitchMode->click();
        QCOMPARE(dialogs_->questions.last(),
                 QString("Switch mode?|Are you sure you want to switch to BL/APP mode?"));
        QCOMPARE(sim_->mode(), gnxsim::Mode::Bl);
        QCOMPARE(logs.count(QtInfoMsg, "Disconnection of " + port + " (Please reconnect to GNX)."), 1);
        QVERIFY(window_->connectedPort().isEmpty());
        const QPushButton* apply =
            window_->bearingsWindow()->findChild<QPushButton*>("pushButtonBearingsApply");
        QCOMPARE(apply->toolTip(), "Connect a receiver to apply the offset to its setup");

        // Reconnect in bootloader mode and upload.
        QVERIFY(connectTo(port));
        QCOMPARE(ui()->pushButtonSwitchMode->text(), QString("Switch back to standard mode..."));
        // Nothing of the application's values is left, and what the bootloader cannot answer is off.
        QCOMPARE(ui()->tableWidgetPlatforms->rowCount(), 0);
        QCOMPARE(ui()->comboBoxSetupSoftwareOrviaBand->currentIndex(), -1);
        QCOMPARE(ui()->lineEditHardwareDeclination->text(), QString());
        QVERIFY(!ui()->groupBoxSoftwareSetup->isEnabled() && !ui()->groupBoxHardwareSetup->isEnabled());
        QVERIFY(!ui()->tabWidget->isTabEnabled(ui()->tabWidget->indexOf(ui()->tabPlatforms)));
        QVERIFY(!ui()->pushButtonRxFlashRead->isEnabled() &&
                !ui()->pushButtonTerminalSaveScript->isEnabled());
        QCOMPARE(apply->toolTip(),
                 "The receiver is in firmware update mode: switch back to standard mode to apply the offset");
        QSignalSpy progress(window_->gnxLink(), &OrviaGonioManager::Com::GnxLink::sigFirmwareProgress);
        dialogs_->files << van;
        dialogs_->answers << QMessageBox::Yes;
        ui()->pushButtonUpdateFirmware->click();
        QCOMPARE(dialogs_->criticals, QStringList());
        QCOMPARE(dialogs_->fileCaptions.last(),
                 QString("Select GNX firmware (VAN format)|GNX firmware (*.van);;All files (*)"));
        QCOMPARE(
            dialogs_->questions.last(),
            QString(
                "Update firmware?|Are you sure you want to update firmware to 7.7.7? This will delete ALL "
                "your data."));
        QVERIFY(!progress.isEmpty());
        QCOMPARE(progress.last().at(0), progress.last().at(1));
        QCOMPARE(logs.count(QtInfoMsg, "Disconnection of " + port + " (Please reconnect to GNX)."), 2);
        QCOMPARE(sim_->mode(), gnxsim::Mode::App);
        QCOMPARE(sim_->applicationVersion(), QString("7.7.7"));
    }

    void firmwareFileChecks_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("error");
        QTest::newRow("one line") << QByteArray("VANTOR GONIO_V2 FIRMWARE VERSION : 1.0")
                                  << "Unable to read GNX firmware file %1: not enought data";
        QTest::newRow("bad first line")
            << QByteArray("HELLO\rV00") << "Unable to decode first line of file %1.";
        QTest::newRow("other generation") << QByteArray("VANTOR GONIO_V1 FIRMWARE VERSION : 1.0  \rV00")
                                          << "Incompatible GNX version (1 vs 2).";
    }

    void firmwareFileChecks()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, error);
        QVERIFY(startAndConnect(simOptions("gnx234", 2)));
        const QString path = writeFile("bad.van", content);
        QVERIFY(!path.isEmpty());
        dialogs_->files << path;
        ui()->pushButtonUpdateFirmware->click();
        QCOMPARE(dialogs_->criticals, QStringList{error.contains("%1") ? error.arg(path) : error});
        QCOMPARE(window_->connectedPort(), sim_->slavePath()); // still connected
    }
};

QTEST_MAIN(TestMainWindow)
#include "tst_mainwindow.moc"
