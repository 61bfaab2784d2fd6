// The request engine and the device records, end to end over a pseudo-terminal against the
// emulator running in process.

#include "TestSupport.h"
#include "com/GnxFrame.h"
#include "mrl/utils/DateTime.h"
#include "sim/PtySimulator.h"

#include <QSignalSpy>
#include <QTest>
#include <QTimer>

using namespace OrviaGonioManager::Com;
using namespace TestSupport;
using gnxsim::Mode;
using gnxsim::Model;
using MRL::Utils::DateTime;
Q_DECLARE_METATYPE(Model)
Q_DECLARE_METATYPE(Mode)

class TestGnxLink : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<gnxsim::PtySimulator> sim;
    std::unique_ptr<GnxLink> gnx;

    // A receiver, identified unless asked not to, with nothing received yet.
    void start(Model model, Mode mode = Mode::App, bool identify = true, int flashRecords = 0)
    {
        gnx.reset();
        gnxsim::Options options;
        options.model = model;
        options.mode = mode;
        options.flashRecords = flashRecords;
        sim = std::make_unique<gnxsim::PtySimulator>(options);
        QVERIFY2(sim->start(), qPrintable(sim->errorString()));
        gnx = std::make_unique<GnxLink>();
        gnx->openConnection(sim->slavePath());
        if (identify)
            gnx->readDeviceInfo();
        sim->clearReceived();
    }

private slots:
    void init()
    {
        sandboxSettings();
        CatchingApplication::clearCaught();
        start(Model::Gnx234);
    }
    void cleanup() { QVERIFY(CatchingApplication::caught().isEmpty()); }

    void identification_data()
    {
        QTest::addColumn<Model>("model");
        QTest::addColumn<Mode>("mode");
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<GnxLink::GnxMode_t>("deviceMode");
        // Their TEST replies have 2, 8 and 6 parameters.
        QTest::newRow("GNX134") << Model::Gnx134 << Mode::App << GnxLink::GNX_V1
                                << GnxLink::GNX_UNDEFINEDMODE;
        QTest::newRow("GNX234") << Model::Gnx234 << Mode::App << GnxLink::GNX_V2 << GnxLink::GNX_APP;
        QTest::newRow("GNX234 bootloader") << Model::Gnx234 << Mode::Bl << GnxLink::GNX_V2 << GnxLink::GNX_BL;
    }
    void identification()
    {
        QFETCH(Model, model);
        QFETCH(Mode, mode);
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(GnxLink::GnxMode_t, deviceMode);
        start(model, mode, false);
        const GnxLink::GnxDeviceInfo info = gnx->readDeviceInfo();
        QCOMPARE(info.version, version);
        QCOMPARE(info.mode, deviceMode);
        // A bootloader is asked nothing more, and what it cannot tell is "UNKNOWN".
        const bool bl = mode == Mode::Bl;
        QCOMPARE(sim->receivedLines(), (bl ? QStringList{"TEST"} : QStringList{"TEST", "GSN", "LIG"}));
        QCOMPARE(info.applicationVersion, bl ? QStringLiteral("UNKNOWN") : sim->applicationVersion());
        QCOMPARE(info.serialNumberPart2 == "UNKNOWN", bl);
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
        QTest::newRow("3 parameters") << QStringList{"GNX234", "12", "345"}
                                      << "Unable to read reply of command TEST setup: bad parameters number.";
    }
    void identificationFailures()
    {
        QFETCH(QStringList, test);
        QFETCH(QString, error);
        sim->overrideNextReply("TEST", test);
        QCOMPARE(thrown([&] { gnx->readDeviceInfo(); }), error);
        QCOMPARE(sim->receivedLines(), QStringList{"TEST"});
    }

    void gnx134SerialAndScaling()
    {
        start(Model::Gnx134, Mode::App, false);
        sim->overrideNextReply("GSN", {"12-345"});
        sim->overrideNextReply("LIG", {"2", "2700000", "0", "271", "12500", "31", "24", "1", "2", "3", "4",
                                       "5", "1.8.3", "1.02", "2.0"});
        const GnxLink::GnxDeviceInfo info = gnx->readDeviceInfo();
        QCOMPARE((QStringList{info.serialNumberPart1, info.serialNumberPart2}), (QStringList{"0012", "345"}));
        QCOMPARE(info.latitude, 45.0);
        QCOMPARE(info.voltage, 12.5);
    }

    void setups()
    {
        const QDateTime clock(QDate(2024, 2, 29), QTime(23, 58), Qt::UTC);
        sim->setClock(clock);
        // The clock in it (40587) is no setup: it must not reach the device.
        gnx->setSetupSoftware({true, true, 77, true, GnxLink::COORDTYPE_DEGSEC,
                               GnxLink::DISTTYPE_NATUICALMILES, 359, 40587, 0.0, GnxLink::ORVIABAND_B9,
                               true});
        const GnxLink::SetupSoftware swBack = gnx->getSetupSoftware();
        gnx->setSetupHardware({GnxLink::DIRECTIONMODE_MSG_decoding, GnxLink::ANTENNAPOSITION_Low, -25,
                               GnxLink::ANTENNATYPE_ANX234_Extended, GnxLink::COMPASSMODE_Undefined, "-1.5E",
                               true});
        const GnxLink::SetupHardware hwBack = gnx->getSetupHardware();
        gnx->setTime(62992, 7 * 3600 + 8 * 60 + 30.4); // 2031-05-06 07:08:30.4
        const GnxLink::SetupSoftware timeBack = gnx->getSetupSoftware();
        const QStringList sent{"SETUPSW,1,1,77,1,2,2,359,,,,,,8,1", "SETUPSW,,,,,,,,,,,,,,",
                               "SETUPHW,1,1,-25,2,3,-1.5E,1",       "SETUPHW,,,,,,,",
                               "SETUPSW,,,,,,,,31,5,6,7,8,,",       "SETUPSW,,,,,,,,,,,,,,"};
        // Read back and written again while recording, both give the frames they were written with,
        // and nothing more reaches the device.
        gnx->startRecording();
        gnx->setSetupSoftware(swBack);
        gnx->setSetupHardware(hwBack);
        QCOMPARE(gnx->takeRecordedCommands(),
                 (QStringList{'$' + GnxFrame::seal(sent[0]), '$' + GnxFrame::seal(sent[2])}));
        QCOMPARE(sim->receivedLines(), sent);
        // A setup write leaves the clock alone; setTime sets it, to the minute.
        QCOMPARE(DateTime::fromMjd(swBack.mjd, swBack.secondsOfDay).toQDateTime(), clock);
        QCOMPARE(DateTime::fromMjd(timeBack.mjd, timeBack.secondsOfDay).toQDateTime(),
                 QDateTime(QDate(2031, 5, 6), QTime(7, 8), Qt::UTC));
    }

    void requestEngine()
    {
        QCOMPARE(thrown([&] { gnx->deletePlatformFlashMemory(999); }),
                 "Error in reply: Unrelated message: \"$" + GnxFrame::seal("ACK,0") + '"');
        // A request made while one waits is refused; the waiting one completes.
        gnxsim::Faults slow;
        slow.delayMs = 300;
        sim->setFaults(slow);
        QString inner;
        QTimer::singleShot(0, this,
                           [&] { inner = thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_GSN); }); });
        gnx->sendBlockingRequest(GnxLink::CMD_LIG);
        QCOMPARE(inner, QStringLiteral("sendBlockingRequest recursively called"));
        QCOMPARE(gnx->replyValues().size(), 16);
        QCOMPARE(sim->receivedLines(), (QStringList{"DFP,999", "LIG"}));
    }

    void stalledDeviceAndLateReply()
    {
        sandboxSettings().gnxCommandTimeoutMs = 1000;
        // Reports keep the link waiting past its own time-out: only the engine's ends the request.
        gnxsim::Faults mute;
        mute.dropReply = 1.0;
        sim->setFaults(mute);
        sim->setLiveInterval(150);
        QCOMPARE(thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_GSN); }),
                 QStringLiteral("Link Error: Request interrupted"));
        sim->setLiveInterval(0);
        // The answer comes late: it is kept as the last reply and completes nothing.
        MessageLog log;
        sim->sendRawLine("GSN,0042,77");
        QTRY_COMPARE(gnx->replyValues(), (QStringList{"0042", "77"}));
        QVERIFY(log.warnings().isEmpty());
        // Closing while a request waits ends it at once.
        QTimer::singleShot(100, this, [&] { gnx->closeConnection(); });
        QCOMPARE(thrown([&] { gnx->sendBlockingRequest(GnxLink::CMD_GSN); }),
                 QStringLiteral("Link Error: Connection closed"));
    }

    void manualKnownCommandIsAwaited()
    {
        gnx->sendManualCommand(QStringLiteral("$GSN*70"));
        QCOMPARE(gnx->replyValues(), sim->serialNumber().split('-'));
        gnx->sendManualCommand(QStringLiteral("TEST")); // checksum completed
        QCOMPARE(gnx->replyValues().size(), 8);
        QCOMPARE(sim->receivedLines(), (QStringList{"GSN", "TEST"}));
    }

    void manualCommandsPassedOn_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("line"); // as the link writes it
        QTest::addColumn<QStringList>("warnings");
        QTest::newRow("unknown") << QString("$FOO,1*71") << QString("$FOO,1*71") << QStringList();
        QTest::newRow("checksum completed") << QString("FOO,1") << QString("$FOO,1*71") << QStringList();
        QTest::newRow("known, wrong checksum") << QString("$TEST*00") << QString("$TEST*00")
                                               << QStringList{"Wrong checksum provided (should be 3C)"};
        QTest::newRow("empty") << QString() << QString()
                               << QStringList{"Empty command", "Command with an empty payload."};
    }
    void manualCommandsPassedOn()
    {
        QFETCH(QString, typed);
        QFETCH(QString, line);
        QFETCH(QStringList, warnings);
        // Nothing is awaited: the call returns although the device answers nothing.
        sim->setStalled(true);
        QSignalSpy passed(gnx.get(), &GnxLink::sigSendManualGnxCmd);
        MessageLog log;
        gnx->sendManualCommand(typed);
        QCOMPARE(passed, QList<QVariantList>{{line}});
        QCOMPARE(log.warnings(), warnings);
        QTRY_COMPARE(sim->receivedLines(),
                     line.isEmpty() ? QStringList() : QStringList{line.section('*', 0, 0).mid(1)});
    }

    void readFlashMemoryInSteps()
    {
        start(Model::Gnx234, Mode::App, true, 1000);
        const QByteArray records = sim->flashBytes();
        const int steps = int(records.size() + 1 + 16383) / 16384;
        QVERIFY(steps > 1); // several blocks
        QSignalSpy progress(gnx.get(), &GnxLink::sigFlashProgress);
        QCOMPARE(gnx->readFlashMemory(), records + QByteArray(steps * 16384 - records.size(), char(0xFF)));
        // Announced first, then after each block; the last one is the whole of what IFP announced.
        const qint64 total = records.size() + 1;
        QCOMPARE(progress.size(), steps + 1);
        for (int i = 0; i <= steps; ++i)
            QCOMPARE(progress.at(i), (QVariantList{qMin(i * 16384LL, total), total}));
        QStringList reads{"IFP"};
        for (int i = 0; i < steps; ++i)
            reads.append(QStringLiteral("RFP,%1,16384").arg(i * 16384));
        QCOMPARE(sim->receivedLines(), reads);
    }
};

OGM_TEST_MAIN(TestGnxLink)
#include "tst_gnxlink.moc"
