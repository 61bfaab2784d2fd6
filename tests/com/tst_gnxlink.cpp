// The request engine and the device records, end to end over a pseudo-terminal against the
// emulator running in process.

#include "TestSupport.h"
#include "com/GnxFrame.h"
#include "mrl/utils/DateTime.h"

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

class TestGnxLink : public QObject, private SimLink
{
    Q_OBJECT

private slots:
    void init()
    {
        sandboxSettings();
        CatchingApplication::clearCaught();
        QVERIFY(startSim(Model::Gnx234));
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
        QVERIFY(startSim(model, mode, 0, 0, false));
        const GnxLink::GnxDeviceInfo info = link->readDeviceInfo();
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
        QCOMPARE(thrown([&] { link->readDeviceInfo(); }), error);
        QCOMPARE(sim->receivedLines(), QStringList{"TEST"});
    }

    void gnx134SerialAndScaling()
    {
        QVERIFY(startSim(Model::Gnx134, Mode::App, 0, 0, false));
        sim->overrideNextReply("GSN", {"12-345"});
        sim->overrideNextReply("LIG", {"2", "2700000", "0", "271", "12500", "31", "24", "1", "2", "3", "4",
                                       "5", "1.8.3", "1.02", "2.0"});
        const GnxLink::GnxDeviceInfo info = link->readDeviceInfo();
        QCOMPARE((QStringList{info.serialNumberPart1, info.serialNumberPart2}), (QStringList{"0012", "345"}));
        QCOMPARE(info.latitude, 45.0);
        QCOMPARE(info.voltage, 12.5);
    }

    void setups()
    {
        const QDateTime clock(QDate(2024, 2, 29), QTime(23, 58), Qt::UTC);
        sim->setClock(clock);
        // The clock in it (40587) is no setup: it must not reach the device.
        link->setSetupSoftware({true, true, 77, true, GnxLink::COORDTYPE_DEGSEC,
                                GnxLink::DISTTYPE_NATUICALMILES, 359, 40587, 0.0, GnxLink::ORVIABAND_B9,
                                true});
        const GnxLink::SetupSoftware swBack = link->getSetupSoftware();
        link->setSetupHardware({GnxLink::DIRECTIONMODE_MSG_decoding, GnxLink::ANTENNAPOSITION_Low, -25,
                                GnxLink::ANTENNATYPE_ANX234_Extended, GnxLink::COMPASSMODE_Undefined, "-1.5E",
                                true});
        const GnxLink::SetupHardware hwBack = link->getSetupHardware();
        link->setTime(62992, 7 * 3600 + 8 * 60 + 30.4); // 2031-05-06 07:08:30.4
        const GnxLink::SetupSoftware timeBack = link->getSetupSoftware();
        const QStringList sent{"SETUPSW,1,1,77,1,2,2,359,,,,,,8,1", "SETUPSW,,,,,,,,,,,,,,",
                               "SETUPHW,1,1,-25,2,3,-1.5E,1",       "SETUPHW,,,,,,,",
                               "SETUPSW,,,,,,,,31,5,6,7,8,,",       "SETUPSW,,,,,,,,,,,,,,"};
        // Read back and written again while recording, both give the frames they were written with,
        // and nothing more reaches the device.
        link->startRecording();
        link->setSetupSoftware(swBack);
        link->setSetupHardware(hwBack);
        QCOMPARE(link->takeRecordedCommands(),
                 (QStringList{'$' + GnxFrame::seal(sent[0]), '$' + GnxFrame::seal(sent[2])}));
        QCOMPARE(sim->receivedLines(), sent);
        // A setup write leaves the clock alone; setTime sets it, to the minute.
        QCOMPARE(DateTime::fromMjd(swBack.mjd, swBack.secondsOfDay).toQDateTime(), clock);
        QCOMPARE(DateTime::fromMjd(timeBack.mjd, timeBack.secondsOfDay).toQDateTime(),
                 QDateTime(QDate(2031, 5, 6), QTime(7, 8), Qt::UTC));
    }

    void requestEngine()
    {
        QCOMPARE(thrown([&] { link->deletePlatformFlashMemory(999); }),
                 "Error in reply: Unrelated message: \"$" + GnxFrame::seal("ACK,0") + '"');
        // A request made while one waits is refused; the waiting one completes.
        gnxsim::Faults slow;
        slow.delayMs = 300;
        sim->setFaults(slow);
        QString inner;
        QTimer::singleShot(0, this,
                           [&] { inner = thrown([&] { link->sendBlockingRequest(GnxLink::CMD_GSN); }); });
        link->sendBlockingRequest(GnxLink::CMD_LIG);
        QCOMPARE(inner, QStringLiteral("sendBlockingRequest recursively called"));
        QCOMPARE(link->replyValues().size(), 16);
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
        QCOMPARE(thrown([&] { link->sendBlockingRequest(GnxLink::CMD_GSN); }),
                 QStringLiteral("Link Error: Request interrupted"));
        sim->setLiveInterval(0);
        // The answer comes late: it is kept as the last reply and completes nothing.
        MessageLog log;
        sim->sendRawLine("GSN,0042,77");
        QTRY_COMPARE(link->replyValues(), (QStringList{"0042", "77"}));
        QVERIFY(log.warnings().isEmpty());
        // Closing while a request waits ends it at once.
        QTimer::singleShot(100, this, [&] { link->closeConnection(); });
        QCOMPARE(thrown([&] { link->sendBlockingRequest(GnxLink::CMD_GSN); }),
                 QStringLiteral("Link Error: Connection closed"));
    }

    void manualKnownCommandIsAwaited()
    {
        link->sendManualCommand(QStringLiteral("$GSN*70"));
        QCOMPARE(link->replyValues(), sim->serialNumber().split('-'));
        link->sendManualCommand(QStringLiteral("TEST")); // checksum completed
        QCOMPARE(link->replyValues().size(), 8);
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
        QSignalSpy passed(link.get(), &GnxLink::sigSendManualGnxCmd);
        MessageLog log;
        link->sendManualCommand(typed);
        QCOMPARE(passed, QList<QVariantList>{{line}});
        QCOMPARE(log.warnings(), warnings);
        QTRY_COMPARE(sim->receivedLines(),
                     line.isEmpty() ? QStringList() : QStringList{line.section('*', 0, 0).mid(1)});
    }

    void readFlashMemoryInSteps()
    {
        QVERIFY(startSim(Model::Gnx234, Mode::App, 0, 1000));
        const QByteArray records = sim->flashBytes();
        const int steps = int(records.size() + 1 + 16383) / 16384;
        QVERIFY(steps > 1); // several blocks
        QSignalSpy progress(link.get(), &GnxLink::sigFlashProgress);
        QCOMPARE(link->readFlashMemory(), records + QByteArray(steps * 16384 - records.size(), char(0xFF)));
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
