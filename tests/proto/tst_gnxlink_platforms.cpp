// Favourite-platform slots over a pseudo-terminal: what GnxLink writes is what gnxsim holds.
#include "SimLink.h"
#include "com/PlatformCodec.h"

using namespace OrviaGonioManager::Com;
using OrviaGonioManager::Utils::GpsFormat;
using OrviaGonioManager::Utils::GpsFormat_t;
using TestSupport::CatchingApplication;
using TestSupport::MessageLog;

namespace {

GpsFormat_t testFormat(const QString& name, qint32 dataLen = 192)
{
    GpsFormat_t f;
    f.name = name;
    f.payloadLength = 248;
    f.latitude = {0, 1, 1, 21, 1, 10000, 0, 1, 0};
    f.longitude = {22, 1, 23, 22, 1, 10000, -5, 2, 1};
    f.encryptionType = GpsFormat::ENCRYPTIONTYPE_1;
    f.polynom = 0x8005;
    f.crcPos = 200;
    f.crcLen = 16;
    f.dataPos = 8;
    f.dataLen = dataLen;
    f.indexPos = 45;
    f.gpsCheck = true;
    return f;
}

GnxLink::PlatformInfo platform(int index, const QString& id, GpsFormat_t* format)
{
    GnxLink::PlatformInfo p;
    p.index = index;
    p.id = id;
    p.label = QStringLiteral("Float %1").arg(index);
    p.repetitionPeriod = 120;
    p.band = 5;
    p.modulation = 1;
    p.frequencyMode = 0;
    p.narrowFrequency = 401320000;
    p.meanDirectionValues = 7;
    p.gpsFormat = format;
    return p;
}

gnxsim::Model modelOf(GnxLink::GnxVersion_t version)
{
    return version == GnxLink::GNX_V1 ? gnxsim::Model::Gnx134 : gnxsim::Model::Gnx234;
}

QString ipLine(const QStringList& params)
{
    return QStringLiteral("IP,") + params.join(QLatin1Char(','));
}

} // namespace

Q_DECLARE_METATYPE(GnxLink::GnxVersion_t)

class TestGnxLinkPlatforms : public QObject
{
    Q_OBJECT

    SimLink sl;

    static int ipCount(GnxLink::GnxVersion_t version) { return version == GnxLink::GNX_V2 ? 39 : 36; }

    void addGenerations()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::newRow("GNX134") << GnxLink::GNX_V1;
        QTest::newRow("GNX234") << GnxLink::GNX_V2;
    }

private slots:
    void initTestCase() { TestSupport::sandboxSettings(); }
    void init()
    {
        CatchingApplication::clearCaught();
        clearGpsFormats();
    }
    void cleanup()
    {
        QCOMPARE(CatchingApplication::caught(), QStringList());
        sl.stop();
    }

    // Written, held by the receiver field for field, read back, with and without a GPS format,
    // for 20- and 28-bit identifiers.
    void writeAndReadBack_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<QString>("id");
        QTest::addColumn<bool>("withFormat");
        for (const auto version : {GnxLink::GNX_V1, GnxLink::GNX_V2}) {
            const int v = int(version);
            QTest::addRow("V%d 5 characters, format", v) << version << "1A2B3" << true;
            QTest::addRow("V%d 7 characters, format", v) << version << "1ABCDEF" << true;
            QTest::addRow("V%d 5 characters, no format", v) << version << "ABCDE" << false;
            QTest::addRow("V%d 7 characters, no format", v) << version << "FEDCBA9" << false;
        }
    }
    void writeAndReadBack()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(QString, id);
        QFETCH(bool, withFormat);
        QVERIFY(sl.start(simOptions(modelOf(version))));
        GpsFormat_t format = testFormat(QStringLiteral("FMT-%1").arg(id));
        const int index = sl.link->maxPlatformsNumber() - 1;
        const GnxLink::PlatformInfo written = platform(index, id, withFormat ? &format : nullptr);

        sl.link->setPlatformInfo(written, false);

        const QStringList held = sl.sim->platformSlot(index);
        const bool v2 = version == GnxLink::GNX_V2;
        QCOMPARE(held.size(), v2 ? 39 : 36);
        QCOMPARE(held[2], id.size() == 5 ? "1" : "2");
        QCOMPARE(held[3], id);
        QCOMPARE(held[4], written.label);
        QCOMPARE(held[5], withFormat ? "1" : "0");
        QCOMPARE(held[6], withFormat ? format.name : QString());
        QCOMPARE(held[28], "120");
        if (v2)
            QCOMPARE(held.mid(29, 4), (QStringList{"5", "1", "0", "401320000"}));
        else
            QCOMPARE(held[29], "7");
        const QStringList tail = held.mid(v2 ? 33 : 30);
        const QStringList formatTail{"1", "8005", "200", "16", "8", "192"};
        const QStringList emptyTail{"0", "0", "0", "0", "0", "1"};
        QCOMPARE(tail, withFormat ? formatTail : emptyTail);
        QCOMPARE(held.mid(7, 18).join(','), withFormat ? "0,1,1,21,1,10000,0,1,0,22,1,23,22,1,10000,-5,2,1"
                                                       : QStringList(18, "0").join(','));

        const GnxLink::PlatformInfo read = sl.link->getPlatformInfo(index);
        QCOMPARE(read.index, index);
        QCOMPARE(read.id, id);
        QCOMPARE(read.label, written.label);
        QCOMPARE(read.repetitionPeriod, 120);
        QCOMPARE(read.band, v2 ? 5 : 0);
        QCOMPARE(read.narrowFrequency, v2 ? 401320000 : 0);
        QCOMPARE(read.meanDirectionValues, v2 ? 0 : 7);
        if (withFormat) {
            QVERIFY(read.gpsFormat);
            QCOMPARE(read.gpsFormat, GpsFormat::instance()->getGpsFormat(format.name));
            QVERIFY(GpsFormat::compareGpsFormats(*read.gpsFormat, format, false));
            QCOMPARE(read.gpsFormat->origin, GpsFormat::ORIGIN_GNX);
            QCOMPARE(read.gpsFormat->description, QStringLiteral("Imported from Gnx"));
        } else {
            QCOMPARE(read.gpsFormat, nullptr);
            QCOMPARE(GpsFormat::instance()->count(), 0);
        }
    }

    // The receiver's own slots (seeded) read back as it holds them.
    void readSeededSlots_data() { addGenerations(); }
    void readSeededSlots()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QVERIFY(sl.start(simOptions(modelOf(version), gnxsim::Mode::App, 5)));
        for (int i = 0; i < 6; ++i) {
            const GnxLink::PlatformInfo p = sl.link->getPlatformInfo(i);
            const QStringList held = sl.sim->platformSlot(i);
            QCOMPARE(p.index, i);
            QCOMPARE(p.id, held.value(3));
            QCOMPARE(p.label, held.value(4));
            QCOMPARE(p.gpsFormat != nullptr, held.value(5) == QLatin1String("1"));
            if (p.gpsFormat)
                QCOMPARE(p.gpsFormat->name, held.value(6));
        }
        QCOMPARE(sl.sim->receivedLines().size(), 6);
        QCOMPARE(sl.sim->receivedLines().first(), "IP,0" + QString(",").repeated(ipCount(version) - 1));
    }

    // Out-of-range data lengths never reach the receiver.
    void dataLength_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<int>("dataLen");
        QTest::addColumn<bool>("accepted");
        for (const auto version : {GnxLink::GNX_V1, GnxLink::GNX_V2}) {
            for (const int dataLen : {0, 1, 254, 255})
                QTest::addRow("V%d %d", int(version), dataLen)
                    << version << dataLen << (dataLen == 1 || dataLen == 254);
        }
    }
    void dataLength()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(int, dataLen);
        QFETCH(bool, accepted);
        QVERIFY(sl.start(simOptions(modelOf(version))));
        GpsFormat_t format = testFormat(QStringLiteral("LEN"), dataLen);
        const GnxLink::PlatformInfo p = platform(2, QStringLiteral("12345"), &format);
        const QString error = thrownMessage([&] { sl.link->setPlatformInfo(p, false); });
        if (accepted) {
            QCOMPARE(error, QString());
            QCOMPARE(sl.sim->platformSlot(2).last(), QString::number(dataLen));
        } else {
            QCOMPARE(error,
                     QStringLiteral("Unable to set platform info, data length is not between 1 and 254 (%1)")
                         .arg(dataLen));
            QCOMPARE(sl.sim->receivedLines(), QStringList());
            QVERIFY(sl.sim->platformSlot(2).isEmpty());
        }
    }

    // A slot holding another identifier is cleared first, then written with the action "1".
    void recreate_data() { addGenerations(); }
    void recreate()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QVERIFY(sl.start(simOptions(modelOf(version), gnxsim::Mode::App, 3)));
        const int count = ipCount(version);
        const GnxLink::PlatformInfo p = platform(1, QStringLiteral("BEEF1"), nullptr);

        // The receiver refuses a new identifier in a used slot without a re-creation.
        QCOMPARE(thrownMessage([&] { sl.link->setPlatformInfo(p, false); }).left(31),
                 QStringLiteral("Error in reply: Invalid command"));
        sl.sim->clearReceived();

        sl.link->setPlatformInfo(p, true);
        const QStringList lines = sl.sim->receivedLines();
        QCOMPARE(lines.size(), 2);
        QCOMPARE(lines[0], "IP,1,0" + QString(",").repeated(count - 2));
        QCOMPARE(lines[1], ipLine(PlatformCodec::writeParameters(p, version, true)));
        QVERIFY(lines[1].startsWith(QLatin1String("IP,1,1,1,BEEF1,")));
        QCOMPARE(sl.sim->platformSlot(1).value(3), QStringLiteral("BEEF1"));
        QCOMPARE(sl.link->getPlatformInfo(1).id, QStringLiteral("BEEF1"));
    }

    void deleteSlot_data() { addGenerations(); }
    void deleteSlot()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QVERIFY(sl.start(simOptions(modelOf(version), gnxsim::Mode::App, 4)));
        QVERIFY(!sl.sim->platformSlot(2).isEmpty());
        sl.link->deletePlatformInfo(2);
        QCOMPARE(sl.sim->receivedLines(),
                 QStringList{"IP,2,0" + QString(",").repeated(ipCount(version) - 2)});
        QVERIFY(sl.sim->platformSlot(2).isEmpty());
        QVERIFY(!sl.sim->platformSlot(1).isEmpty());
        QVERIFY(sl.link->getPlatformInfo(2).id.isEmpty());
    }

    // Recorded writes carry the action "1" so that a played-back script re-creates its slots.
    void recording()
    {
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx234, gnxsim::Mode::App, 2)));
        GpsFormat_t format = testFormat(QStringLiteral("REC"));
        const GnxLink::PlatformInfo a = platform(0, QStringLiteral("ABCDE"), &format);
        const GnxLink::PlatformInfo b = platform(5, QStringLiteral("ABCDEF0"), nullptr);
        sl.link->startRecording();
        sl.link->setPlatformInfo(a, false);
        sl.link->setPlatformInfo(b, true);
        sl.link->deletePlatformInfo(7);
        const QStringList recorded = sl.link->takeRecordedCommands();
        QCOMPARE(recorded.size(), 4);
        QVERIFY(recorded[0].startsWith(QLatin1String("$IP,0,1,1,ABCDE,Float 0,1,REC,")));
        QVERIFY(recorded[1].startsWith("$IP,5,0" + QString(",").repeated(37) + "*"));
        QVERIFY(recorded[2].startsWith(QLatin1String("$IP,5,1,2,ABCDEF0,Float 5,0,,")));
        QVERIFY(recorded[3].startsWith("$IP,7,0" + QString(",").repeated(37) + "*"));
        QCOMPARE(sl.sim->receivedLines(), QStringList());

        // Played back, the lines rebuild the slots.
        for (const QString& line : recorded)
            sl.link->sendManualCommand(line);
        QCOMPARE(sl.sim->platformSlot(0).value(3), QStringLiteral("ABCDE"));
        QCOMPARE(sl.sim->platformSlot(0).value(6), QStringLiteral("REC"));
        QCOMPARE(sl.sim->platformSlot(5).value(3), QStringLiteral("ABCDEF0"));
    }

    // A known format of the same name but other values is kept; the slot points at it.
    void importedFormatConflict()
    {
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx234)));
        GpsFormat_t sent = testFormat(QStringLiteral("SHARED"));
        sl.link->setPlatformInfo(platform(3, QStringLiteral("11111"), &sent), false);

        GpsFormat::instance()->newGpsFormat();
        GpsFormat_t local = *GpsFormat::instance()->getGpsFormat(QStringLiteral("New GPS Format"));
        local.name = QStringLiteral("SHARED");
        QVERIFY(GpsFormat::instance()->saveGpsFormat(QStringLiteral("New GPS Format"), local));
        MessageLog log;
        const GnxLink::PlatformInfo read = sl.link->getPlatformInfo(3);
        QCOMPARE(read.gpsFormat, GpsFormat::instance()->getGpsFormat(QStringLiteral("SHARED")));
        QCOMPARE(read.gpsFormat->origin, GpsFormat::ORIGIN_GUI);
        QCOMPARE(read.gpsFormat->dataLen, 0);
        QCOMPARE(
            log.count(QtWarningMsg, QStringLiteral("A GPS format with the same name \"SHARED\" but with "
                                                   "different values already exists. Use format from file.")),
            1);
    }

    // A read answered with the other generation's count fails with the engine's message.
    void wrongReplyCount()
    {
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx134)));
        sl.sim->overrideNextReply(QStringLiteral("IP"), QStringList(39, QStringLiteral("0")));
        QCOMPARE(thrownMessage([&] { sl.link->getPlatformInfo(0); }),
                 QStringLiteral("Unable to read reply of command IP setup: bad parameters number."));
    }

    void forbiddenCharacter()
    {
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx234)));
        GnxLink::PlatformInfo p = platform(0, QStringLiteral("ABCDE"), nullptr);
        p.label = QStringLiteral("north, east");
        QVERIFY(thrownMessage([&] { sl.link->setPlatformInfo(p, false); }).contains(p.label));
        QCOMPARE(sl.sim->receivedLines(), QStringList());
    }

    // Without identification the link asks the receiver which generation it is first.
    void identifiesWhenNeeded()
    {
        sl.sim =
            std::make_unique<gnxsim::PtySimulator>(simOptions(gnxsim::Model::Gnx134, gnxsim::Mode::App, 1));
        QVERIFY(sl.sim->start());
        sl.link = std::make_unique<GnxLink>();
        sl.link->openConnection(sl.sim->slavePath());
        QCOMPARE(sl.link->getPlatformInfo(0).id, sl.sim->platformSlot(0).value(3));
        QCOMPARE(sl.link->version(), GnxLink::GNX_V1);
        QCOMPARE(sl.sim->receivedLines().first(), QStringLiteral("TEST"));
    }

    void notConnected()
    {
        GnxLink link;
        QCOMPARE(thrownMessage([&] { link.getPlatformInfo(0); }), QStringLiteral("UART link not available"));
        QCOMPARE(thrownMessage([&] { link.deletePlatformInfo(0); }),
                 QStringLiteral("UART link not available"));
    }
};

OGM_TEST_MAIN(TestGnxLinkPlatforms)
#include "tst_gnxlink_platforms.moc"
