// The request engine and the device records, end to end over a pseudo-terminal against the
// emulator running in process.

#include "PtyDevice.h"
#include "TestSupport.h"
#include "com/GnxFrame.h"
#include "com/GnxLink.h"
#include "mrl/utils/DateTime.h"
#include "sim/PtySimulator.h"

#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <functional>
#include <memory>

using namespace OrviaGonioManager::Com;
using MRL::Utils::DateTime;
using TestSupport::CatchingApplication;
using TestSupport::MessageLog;

Q_DECLARE_METATYPE(gnxsim::Model)
Q_DECLARE_METATYPE(gnxsim::Mode)

namespace {

// The message of the exception fn throws, or "no exception".
QString thrown(const std::function<void()>& fn)
{
    try {
        fn();
    } catch (const MRL::Utils::Exception& e) {
        return e.message();
    }
    return QStringLiteral("no exception");
}

const QString kNpr234 =
    QStringLiteral("NPR,24,1,15,10,20,30,ABCDE,401650000,3,120,-110,2700000,120000,45,0,2,32,AABBCCDD");

} // namespace

class TestGnxLink : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<gnxsim::PtySimulator> sim;
    std::unique_ptr<GnxLink> gnx;

    void start(gnxsim::Model model, gnxsim::Mode mode = gnxsim::Mode::App, int platforms = 0,
               int flashRecords = 0)
    {
        gnxsim::Options options;
        options.model = model;
        options.mode = mode;
        options.platforms = platforms;
        options.flashRecords = flashRecords;
        sim = std::make_unique<gnxsim::PtySimulator>(options);
        QVERIFY2(sim->start(), qPrintable(sim->errorString()));
        gnx = std::make_unique<GnxLink>();
        gnx->openConnection(sim->slavePath());
    }

    void startIdentified(gnxsim::Model model, int platforms = 0, int flashRecords = 0)
    {
        start(model, gnxsim::Mode::App, platforms, flashRecords);
        gnx->readDeviceInfo();
        sim->clearReceived();
    }

private slots:
    void init()
    {
        TestSupport::sandboxSettings();
        CatchingApplication::clearCaught();
    }
    void cleanup()
    {
        gnx.reset();
        sim.reset();
        QVERIFY(CatchingApplication::caught().isEmpty());
    }

    // --- identification and status -----------------------------------------------------------

    void identification_data()
    {
        QTest::addColumn<gnxsim::Model>("model");
        QTest::addColumn<gnxsim::Mode>("mode");
        QTest::addColumn<int>("version");
        QTest::addColumn<int>("deviceMode");
        QTest::addColumn<int>("slotCount");
        QTest::addColumn<QStringList>("sent");

        QTest::newRow("GNX134") << gnxsim::Model::Gnx134 << gnxsim::Mode::App << int(GnxLink::GNX_V1)
                                << int(GnxLink::GNX_UNDEFINEDMODE) << 16 << QStringList{"TEST", "GSN", "LIG"};
        QTest::newRow("GNX234 application")
            << gnxsim::Model::Gnx234 << gnxsim::Mode::App << int(GnxLink::GNX_V2) << int(GnxLink::GNX_APP)
            << 64 << QStringList{"TEST", "GSN", "LIG"};
        QTest::newRow("GNX234 bootloader")
            << gnxsim::Model::Gnx234 << gnxsim::Mode::Bl << int(GnxLink::GNX_V2) << int(GnxLink::GNX_BL) << 64
            << QStringList{"TEST"};
    }
    void identification()
    {
        QFETCH(gnxsim::Model, model);
        QFETCH(gnxsim::Mode, mode);
        QFETCH(int, version);
        QFETCH(int, deviceMode);
        QFETCH(int, slotCount);
        QFETCH(QStringList, sent);

        start(model, mode);
        QCOMPARE(gnx->maxPlatformsNumber(), 0);
        const GnxLink::GnxDeviceInfo info = gnx->readDeviceInfo();
        QCOMPARE(int(info.version), version);
        QCOMPARE(int(gnx->version()), version);
        QCOMPARE(int(info.mode), deviceMode);
        QCOMPARE(gnx->maxPlatformsNumber(), slotCount);
        QCOMPARE(sim->receivedLines(), sent);
        QCOMPARE(info.bootloaderVersion, sim->bootloaderVersion());

        if (deviceMode == GnxLink::GNX_BL) {
            for (const QString& text :
                 {info.serialNumberPart1, info.serialNumberPart2, info.applicationVersion, info.fpgaVersion})
                QCOMPARE(text, QStringLiteral("UNKNOWN"));
            QCOMPARE(info.band, GnxLink::ORVIABAND_INVALID);
            QCOMPARE(info.voltage, 0.0);
            QCOMPARE(info.latitude, 0.0);
            QCOMPARE(info.statusBit0, false);
            return;
        }
        const QStringList serial = sim->serialNumber().split('-');
        QCOMPARE(info.serialNumberPart1, serial.at(0).rightJustified(4, '0'));
        QCOMPARE(info.serialNumberPart2, serial.at(1));
        QCOMPARE(gnx->serialNumber(), info.serialNumberPart1);
        QCOMPARE(info.applicationVersion, sim->applicationVersion());
        QVERIFY(!info.fpgaVersion.isEmpty());
        QVERIFY(info.fpgaVersion != info.applicationVersion);
        QVERIFY(info.statusBit0 && info.statusBit1); // the emulator reports 3
        QVERIFY(info.voltage > 11.0 && info.voltage < 13.0);
        QVERIFY(info.latitude > 40.0 && info.latitude < 50.0);
        if (model == gnxsim::Model::Gnx134)
            QCOMPARE(info.band, GnxLink::ORVIABAND_B1);
        else
            QCOMPARE(int(info.band), sim->softwareSetup().at(12).toInt());
    }

    void identificationFailures_data()
    {
        QTest::addColumn<QStringList>("test");
        QTest::addColumn<QString>("error");

        QTest::newRow("6 parameters without BL")
            << QStringList{"GNX234", "12", "345", "B", "APP", "2.11"} << "Unknown mode, should be BL";
        QTest::newRow("8 parameters without APP")
            << QStringList{"GNX234", "12", "345", "B", "BL", "2.11", "3.4.0", "5.2"}
            << "Unknown mode, should be APP";
        QTest::newRow("mode is case-sensitive")
            << QStringList{"GNX234", "12", "345", "B", "bl", "2.11"} << "Unknown mode, should be BL";
        QTest::newRow("3 parameters") << QStringList{"GNX234", "12", "345"}
                                      << "Unable to read reply of command TEST setup: bad parameters number.";
    }
    void identificationFailures()
    {
        QFETCH(QStringList, test);
        QFETCH(QString, error);
        start(gnxsim::Model::Gnx234);
        sim->overrideNextReply("TEST", test);
        QCOMPARE(thrown([&] { gnx->readDeviceInfo(); }), error);
        QCOMPARE(sim->receivedLines(), QStringList{"TEST"});
    }

    void gnx134SerialAndScaling()
    {
        start(gnxsim::Model::Gnx134);
        sim->overrideNextReply("GSN", {"12-345"});
        sim->overrideNextReply("LIG", {"2", "2700000", "-x", "271", "12500", "31", "24", "1", "2", "3", "4",
                                       "5", "1.8.3", "1.02", "2.0"});
        const GnxLink::GnxDeviceInfo info = gnx->readDeviceInfo();
        QCOMPARE(info.serialNumberPart1, QStringLiteral("0012"));
        QCOMPARE(info.serialNumberPart2, QStringLiteral("345"));
        QCOMPARE(info.latitude, 45.0);
        QCOMPARE(info.longitude, 0.0); // unparsable: 0
        QCOMPARE(info.voltage, 12.5);
        QCOMPARE(info.direction, 271u);
        QCOMPARE(info.temperature, 31u);
        QCOMPARE(info.statusBit0, false);
        QCOMPARE(info.statusBit1, true);
        QCOMPARE(info.applicationVersion, QStringLiteral("1.8.3"));
        QCOMPARE(info.bootloaderVersion, QStringLiteral("1.02"));
        QCOMPARE(info.fpgaVersion, QStringLiteral("2.0"));
    }

    void gnx134InBootloaderIsNotIdentified()
    {
        // This generation does not tell its mode; its bootloader refuses the serial number read.
        start(gnxsim::Model::Gnx134, gnxsim::Mode::Bl);
        QCOMPARE(thrown([&] { gnx->readDeviceInfo(); }),
                 QStringLiteral("Error in reply: Invalid command: \"$GSN*70\""));
    }

    // --- setups and clock --------------------------------------------------------------------

    void setups_data()
    {
        QTest::addColumn<gnxsim::Model>("model");
        QTest::newRow("GNX134") << gnxsim::Model::Gnx134;
        QTest::newRow("GNX234") << gnxsim::Model::Gnx234;
    }
    void setups()
    {
        QFETCH(gnxsim::Model, model);
        const bool v1 = model == gnxsim::Model::Gnx134;
        startIdentified(model);
        const QDateTime clock(QDate(2024, 2, 29), QTime(23, 58, 0), Qt::UTC);
        sim->setClock(clock);

        GnxLink::SetupSoftware sw = gnx->getSetupSoftware();
        QCOMPARE(sim->receivedLines().last(),
                 v1 ? QStringLiteral("SETUPSW,,,,,,,,,,,,") : QStringLiteral("SETUPSW,,,,,,,,,,,,,,"));
        QCOMPARE(DateTime::fromMjd(sw.mjd, sw.secondsOfDay).toQDateTime(), clock);
        sw.audio = !sw.audio;
        sw.backlight = true;
        sw.contrast = 77;
        sw.gpsAcquisition = true;
        sw.coordType = GnxLink::COORDTYPE_DEGSEC;
        sw.distType = GnxLink::DISTTYPE_NATUICALMILES;
        sw.directionOffset = 359;
        sw.band = GnxLink::ORVIABAND_B9;
        sw.allToFavorites = true;
        sw.mjd = 40587; // must not reach the device
        gnx->setSetupSoftware(sw);
        QCOMPARE(sim->receivedLines().last(),
                 v1 ? QStringLiteral("SETUPSW,%1,1,77,1,2,2,359,,,,,").arg(int(sw.audio))
                    : QStringLiteral("SETUPSW,%1,1,77,1,2,2,359,,,,,,8,1").arg(int(sw.audio)));
        QVERIFY(sim->clock() >= clock && sim->clock() < clock.addSecs(60));

        const GnxLink::SetupSoftware back = gnx->getSetupSoftware();
        QCOMPARE(back.audio, sw.audio);
        QCOMPARE(back.contrast, quint16(77));
        QCOMPARE(back.coordType, GnxLink::COORDTYPE_DEGSEC);
        QCOMPARE(back.distType, GnxLink::DISTTYPE_NATUICALMILES);
        QCOMPARE(back.directionOffset, quint16(359));
        QCOMPARE(back.band, v1 ? GnxLink::ORVIABAND_B1 : GnxLink::ORVIABAND_B9);
        QCOMPARE(back.allToFavorites, !v1);

        GnxLink::SetupHardware hw = gnx->getSetupHardware();
        QCOMPARE(sim->receivedLines().last(),
                 v1 ? QStringLiteral("SETUPHW,,,,,,") : QStringLiteral("SETUPHW,,,,,,,"));
        hw.directionMode = GnxLink::DIRECTIONMODE_MSG_decoding;
        hw.antennaPosition = GnxLink::ANTENNAPOSITION_Low;
        hw.cableLength = -25;
        hw.antennaType = GnxLink::ANTENNATYPE_ANX234_Extended;
        hw.compassMode = GnxLink::COMPASSMODE_Undefined;
        hw.declination = QStringLiteral("-1.5E");
        hw.proximityMode = true;
        gnx->setSetupHardware(hw);
        QCOMPARE(sim->receivedLines().last(), v1 ? QStringLiteral("SETUPHW,1,1,-25,2,3,-1.5E")
                                                 : QStringLiteral("SETUPHW,1,1,-25,2,3,-1.5E,1"));
        QCOMPARE(sim->hardwareSetup().mid(0, 6), (QStringList{"1", "1", "-25", "2", "3", "-1.5E"}));

        const GnxLink::SetupHardware hwBack = gnx->getSetupHardware();
        QCOMPARE(hwBack.directionMode, GnxLink::DIRECTIONMODE_MSG_decoding);
        QCOMPARE(hwBack.antennaPosition, GnxLink::ANTENNAPOSITION_Low);
        QCOMPARE(hwBack.cableLength, -25);
        QCOMPARE(hwBack.antennaType, GnxLink::ANTENNATYPE_ANX234_Extended);
        QCOMPARE(hwBack.compassMode, GnxLink::COMPASSMODE_Undefined);
        QCOMPARE(hwBack.declination, QStringLiteral("-1.5E"));
        QCOMPARE(hwBack.proximityMode, !v1);

        // The clock, to the minute; nothing else changes.
        const DateTime wanted = DateTime::fromUtc(2031, 5, 6, 7, 8, 30.4);
        gnx->setTime(wanted.mjd(), wanted.secondsOfDay());
        QCOMPARE(sim->receivedLines().last(), v1 ? QStringLiteral("SETUPSW,,,,,,,,31,5,6,7,8")
                                                 : QStringLiteral("SETUPSW,,,,,,,,31,5,6,7,8,,"));
        const QDateTime set(QDate(2031, 5, 6), QTime(7, 8, 0), Qt::UTC);
        QVERIFY(sim->clock() >= set && sim->clock() < set.addSecs(60));
        const GnxLink::SetupSoftware afterClock = gnx->getSetupSoftware();
        QCOMPARE(DateTime::fromMjd(afterClock.mjd, afterClock.secondsOfDay).toQDateTime(), set);
        QCOMPARE(afterClock.contrast, quint16(77));
    }

    void lenientSetupParsing()
    {
        startIdentified(gnxsim::Model::Gnx234);
        sim->overrideNextReply("SETUPSW",
                               {"x", "1", "-3", "", "7", "2", "400", "24", "13", "1", "0", "0", "42", "1"});
        const GnxLink::SetupSoftware sw = gnx->getSetupSoftware();
        QCOMPARE(sw.audio, false);
        QCOMPARE(sw.contrast, quint16(0));
        QCOMPARE(sw.coordType, GnxLink::COORDTYPE_DEG); // no such key
        QCOMPARE(sw.band, GnxLink::ORVIABAND_INVALID);  // no such band
        QCOMPARE(sw.directionOffset, quint16(400));
    }

    // --- engine ------------------------------------------------------------------------------

    void wrongParameterCount()
    {
        startIdentified(gnxsim::Model::Gnx234);
        sim->overrideNextReply("SETUPHW", {"0", "1", "2"});
        QCOMPARE(thrown([&] { gnx->getSetupHardware(); }),
                 QStringLiteral("Unable to read reply of command SETUPHW setup: bad parameters number."));
        // The engine is idle again.
        QCOMPARE(gnx->getSetupHardware().declination, sim->hardwareSetup().at(5));
    }

    void deviceErrorReply()
    {
        startIdentified(gnxsim::Model::Gnx234);
        QCOMPARE(thrown([&] { gnx->deletePlatformFlashMemory(999); }),
                 QStringLiteral("Error in reply: Invalid command: \"$DFP,999*%1\"")
                     .arg(GnxFrame::checksumText(GnxFrame::checksum(u"DFP,999*"))));
    }

    void reentryIsRefused()
    {
        startIdentified(gnxsim::Model::Gnx234);
        gnxsim::Faults slow;
        slow.delayMs = 300;
        sim->setFaults(slow);
        QString inner;
        QTimer::singleShot(0, this,
                           [&] { inner = thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_GSN); }); });
        gnx->sendBlockingRequest(GnxLink::CMD_LIG);
        QCOMPARE(inner, QStringLiteral("sendBlockingRequest recursively called"));
        QCOMPARE(gnx->replyValues().size(), 16);
        QCOMPARE(sim->receivedLines(), QStringList{"LIG"});
    }

    void eventsFlowWhileWaiting()
    {
        auto& settings = TestSupport::sandboxSettings();
        startIdentified(gnxsim::Model::Gnx234);
        settings.gnxCommandTimeoutMs = 1000;
        QSignalSpy compromised(gnx.get(), &GnxLink::sigLinkCompromised);
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&] { ++ticks; });
        ticker.start(20);
        sim->setStalled(true);
        QCOMPARE(thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_GSN); }),
                 QStringLiteral("Link Error: Uart link timeout"));
        QVERIFY2(ticks >= 5, qPrintable(QString::number(ticks)));
        QCOMPARE(compromised.count(), 1);
        QCOMPARE(compromised.first().at(0).toString(), sim->slavePath());
        QCOMPARE(compromised.first().at(1).toString(), QStringLiteral("Uart link timeout"));
        // The timed-out link takes nothing more.
        QCOMPARE(thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_GSN); }),
                 QStringLiteral("UART link timeout"));
        QVERIFY(!compromised.wait(300));
        QCOMPARE(compromised.count(), 1);
    }

    void engineTimeoutAndLateReply()
    {
        auto& settings = TestSupport::sandboxSettings();
        startIdentified(gnxsim::Model::Gnx234);
        settings.gnxCommandTimeoutMs = 1000;
        QSignalSpy compromised(gnx.get(), &GnxLink::sigLinkCompromised);
        // Reports keep the link waiting past its own time-out: only the engine's ends the request.
        sim->setStalled(true);
        QTimer reports;
        connect(&reports, &QTimer::timeout, this, [&] { sim->sendRawLine(kNpr234); });
        reports.start(150);
        QCOMPARE(thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_GSN); }),
                 QStringLiteral("Link Error: Request interrupted"));
        reports.stop();

        // The answer comes late: it is kept as the last reply and completes nothing.
        MessageLog log;
        sim->sendRawLine("GSN,0042,77");
        QTRY_COMPARE(gnx->replyValues(), (QStringList{"0042", "77"}));
        QCOMPARE(compromised.count(), 0);
        QVERIFY(log.warnings().isEmpty());

        sim->setStalled(false);
        gnx->sendRequestAndCheck(GnxLink::CMD_IFP, 0, {}, {2});
        QCOMPARE(gnx->replyValues().first(), QStringLiteral("0"));
    }

    void closingEndsAWaitingRequest()
    {
        startIdentified(gnxsim::Model::Gnx234);
        sim->setStalled(true);
        QTimer::singleShot(100, this, [&] { gnx->closeConnection(); });
        QCOMPARE(thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_GSN); }),
                 QStringLiteral("Link Error: Connection closed"));
        QVERIFY(!gnx->isConnected());
        QCOMPARE(thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_GSN); }),
                 QStringLiteral("UART link not available"));
        QCOMPARE(gnx->portName(), QString());

        // The same object connects again.
        sim->setStalled(false);
        gnx->openConnection(sim->slavePath());
        QCOMPARE(gnx->readDeviceInfo().mode, GnxLink::GNX_APP);
    }

    void unplugWhileWaiting()
    {
        startIdentified(gnxsim::Model::Gnx234);
        QSignalSpy compromised(gnx.get(), &GnxLink::sigLinkCompromised);
        // As the window does: the first report closes the connection.
        connect(gnx.get(), &GnxLink::sigLinkCompromised, this, [&] { gnx->closeConnection(); });
        const QString port = sim->slavePath();
        sim->setStalled(true);
        QTimer::singleShot(100, this, [&] { sim->unplug(); });
        const QString error = thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_GSN); });
        QVERIFY2(error.startsWith(QStringLiteral("Link Error: Port %1 lost (error ").arg(port)),
                 qPrintable(error));
        QCOMPARE(compromised.count(), 1);
        QVERIFY(!compromised.wait(300));
        QCOMPARE(compromised.count(), 1);
    }

    void unplugWhileIdle()
    {
        startIdentified(gnxsim::Model::Gnx134);
        QSignalSpy compromised(gnx.get(), &GnxLink::sigLinkCompromised);
        sim->unplug();
        QVERIFY(compromised.wait(5000));
        QVERIFY(!compromised.wait(300));
        QCOMPARE(compromised.count(), 1);
        QCOMPARE(thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_GSN); }),
                 QStringLiteral("UART link not available"));
    }

    void keepAliveTimeoutIsReportedOnce()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.keepAlivePeriodMs = 50;
        settings.keepAliveTimeoutMs = 300;
        start(gnxsim::Model::Gnx234);
        QSignalSpy compromised(gnx.get(), &GnxLink::sigLinkCompromised);
        sim->setStalled(true);
        QVERIFY(compromised.wait(5000));
        QCOMPARE(compromised.first().at(1).toString(), QStringLiteral("Uart link timeout"));
        QVERIFY(!compromised.wait(300));
        QCOMPARE(compromised.count(), 1);
        QTRY_COMPARE(CatchingApplication::caught(), QStringList{"UART link timeout on KeepAlive"});
        CatchingApplication::clearCaught();
        QCOMPARE(thrown([&] { gnx->readDeviceInfo(); }), QStringLiteral("UART link timeout"));
    }

    void requestsBetweenKeepAlives()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.keepAlivePeriodMs = 1;
        settings.keepAliveTimeoutMs = 5000;
        settings.gnxCommandTimeoutMs = 5000;
        startIdentified(gnxsim::Model::Gnx234);
        // Each request starts right after a keep-alive went out, when the next one is due any moment.
        for (int i = 0; i < 100; ++i) {
            const int keepAlives = int(sim->receivedLines().count("TEST"));
            QTRY_VERIFY(sim->receivedLines().count("TEST") > keepAlives);
            gnx->sendRequestAndCheck(GnxLink::CMD_GSN, 0, {}, {2});
        }
        QCOMPARE(sim->receivedLines().count("GSN"), 100);
    }

    void openFailure()
    {
        gnx = std::make_unique<GnxLink>();
        QSignalSpy compromised(gnx.get(), &GnxLink::sigLinkCompromised);
        const QString path = QStringLiteral("/nonexistent/gnx%1").arg(QCoreApplication::applicationPid());
        gnx->openConnection(path);
        QCOMPARE(gnx->portName(), path);
        QCOMPARE(thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_TEST); }),
                 QStringLiteral("UART link not available"));
        QTRY_COMPARE(compromised.count(), 1);
        QCOMPARE(compromised.first().at(1).toString(),
                 QStringLiteral("Port %1 cannot be open (error DeviceNotFoundError)").arg(path));
    }

    // --- manual commands ---------------------------------------------------------------------

    void manualKnownCommandIsAwaited()
    {
        startIdentified(gnxsim::Model::Gnx234);
        gnx->sendManualCommand(QStringLiteral("$GSN*70"));
        QCOMPARE(gnx->replyValues(), sim->serialNumber().split('-'));
        gnx->sendManualCommand(QStringLiteral("TEST")); // no checksum: completed
        QCOMPARE(gnx->replyValues().size(), 8);
        QCOMPARE(sim->receivedLines(), (QStringList{"GSN", "TEST"}));
    }

    void manualCommandsPassedOn_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QByteArray>("wire");
        QTest::addColumn<QStringList>("warnings");

        QTest::newRow("unknown, with checksum") << "$FOO,1*71" << QByteArray("$FOO,1*71") << QStringList();
        QTest::newRow("unknown, checksum completed") << "FOO,1" << QByteArray("$FOO,1*71") << QStringList();
        QTest::newRow("unknown with dollar, checksum completed")
            << "$FOO,1" << QByteArray("$FOO,1*71") << QStringList();
        QTest::newRow("known, wrong checksum")
            << "$TEST*00" << QByteArray("$TEST*00") << QStringList{"Wrong checksum provided (should be 3C)"};
        QTest::newRow("one-digit checksum, wrong")
            << "$GSN*7" << QByteArray("$GSN*7") << QStringList{"Wrong checksum provided (should be 70)"};
        QTest::newRow("keep-alive is not a command")
            << "KEEPALIVE_INTERNAL*3E" << QByteArray("KEEPALIVE_INTERNAL*3E") << QStringList();
        QTest::newRow("lower case") << "test" << QByteArray("$test*3C") << QStringList();
        QTest::newRow("empty") << "" << QByteArray("") << QStringList{"Empty command"};
        QTest::newRow("empty payload")
            << "$*2A" << QByteArray("$*2A") << QStringList{"Command with an empty payload."};
    }
    void manualCommandsPassedOn()
    {
        QFETCH(QString, typed);
        QFETCH(QByteArray, wire);
        QFETCH(QStringList, warnings);

        // A device that records and answers nothing: the call must not wait for it.
        PtyDevice device;
        QVERIFY(device.isValid());
        gnx = std::make_unique<GnxLink>();
        gnx->openConnection(device.slavePath());
        MessageLog log;
        gnx->sendManualCommand(typed);
        QTRY_COMPARE(device.lines.size(), 1);
        QCOMPARE(device.lines.first(), wire);
        QStringList seen;
        for (const QString& w : log.warnings())
            if (!w.contains("DTR"))
                seen.append(w);
        QCOMPARE(seen, warnings);
    }

    // --- recording and flash -----------------------------------------------------------------

    void recordingSendsNothing()
    {
        startIdentified(gnxsim::Model::Gnx234);
        const GnxLink::SetupSoftware sw = gnx->getSetupSoftware();
        const GnxLink::SetupHardware hw = gnx->getSetupHardware();
        sim->clearReceived();
        const auto operations = [&] {
            gnx->setSetupSoftware(sw);
            gnx->setSetupHardware(hw);
            gnx->setTime(60000, 3600.0);
            gnx->sendManualCommand(QStringLiteral("DFP,3"));
            gnx->deleteFlashMemory();
        };

        gnx->startRecording();
        QVERIFY(gnx->isRecording());
        operations();
        const QStringList recorded = gnx->takeRecordedCommands();
        QVERIFY(!gnx->isRecording());
        QCOMPARE(recorded.size(), 5);
        QCOMPARE(recorded.at(3), QStringLiteral("$DFP,3*67"));
        QVERIFY(sim->receivedLines().isEmpty());
        QVERIFY(gnx->takeRecordedCommands().isEmpty());

        // What was recorded is what the same calls send.
        operations();
        QStringList payloads;
        for (const QString& frame : recorded) {
            const GnxFrame::DecodedLine decoded = GnxFrame::decodeLine(frame);
            QCOMPARE(int(decoded.status), int(GnxFrame::DecodedLine::Ok));
            payloads.append(frame.mid(1, frame.size() - 4));
        }
        QCOMPARE(sim->receivedLines(), payloads);
    }

    void readFlashMemoryInSteps()
    {
        MessageLog log;
        startIdentified(gnxsim::Model::Gnx234, 3, 1000);
        const QByteArray records = sim->flashBytes();
        QVERIFY(records.size() > 16384);
        const QByteArray flash = gnx->readFlashMemory();
        QCOMPARE(log.messages(QtInfoMsg),
                 QStringList{
                     QStringLiteral("Read %1 bytes of data from flash memory...").arg(records.size() + 1)});
        const int steps = (records.size() + 1 + 16383) / 16384;
        QCOMPARE(flash.size(), steps * 16384);
        QCOMPARE(flash.left(records.size()), records);
        QCOMPARE(flash.mid(records.size()), QByteArray(flash.size() - records.size(), char(0xFF)));
        QStringList reads;
        for (int i = 0; i < steps; ++i)
            reads.append(QStringLiteral("RFP,%1,16384").arg(i * 16384));
        QCOMPARE(sim->receivedLines(), QStringList{"IFP"} + reads);

        gnx->deleteFlashMemory();
        QCOMPARE(sim->flashRecordCount(), 0);
        QCOMPARE(gnx->readFlashMemory(), QByteArray());
    }

    void flashReadInPieces()
    {
        startIdentified(gnxsim::Model::Gnx234, 3, 60);
        gnxsim::Faults pieces;
        pieces.splitBytes = 7;
        sim->setFaults(pieces);
        const QByteArray records = sim->flashBytes();
        QCOMPARE(gnx->readFlashMemory().left(records.size()), records);
    }

    void gnx134PlatformFlash()
    {
        MessageLog log;
        startIdentified(gnxsim::Model::Gnx134, 3, 60);
        const QByteArray expected = sim->platformFlashBytes(1);
        QVERIFY(expected.size() > 64);
        QCOMPARE(gnx->readPlatformFlashMemory(1), expected);
        gnx->deletePlatformFlashMemory(1);
        QCOMPARE(sim->receivedLines(), (QStringList{"RFP,1", "DFP,1"}));
        QVERIFY(sim->platformFlashBytes(1).isEmpty());
        QCOMPARE(gnx->readPlatformFlashMemory(1), QByteArray());
        QCOMPARE(log.messages(QtInfoMsg),
                 (QStringList{"Read data from flash memory for platform at index 1...",
                              "Delete data from flash memory for platform at index 1...",
                              "Read data from flash memory for platform at index 1..."}));
    }
};

OGM_TEST_MAIN(TestGnxLink)
#include "tst_gnxlink.moc"
