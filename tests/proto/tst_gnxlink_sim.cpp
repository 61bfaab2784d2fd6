// GnxLink over a pseudo-terminal against gnxsim: live reports parsed and formatted back, favourite
// slots written and read back, firmware upload.
#include "com/GnxFrame.h"
#include "com/TestSupport.h"
#include "mrl/utils/DateTime.h"
#include "sim/Firmware.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

using namespace OrviaGonioManager::Com;
using OrviaGonioManager::Utils::GpsFormat;
using OrviaGonioManager::Utils::GpsFormat_t;
using TestSupport::MessageLog;

Q_DECLARE_METATYPE(GnxLink::GnxVersion_t)

namespace {

constexpr int kWaitMs = 30000;
const auto V1 = GnxLink::GNX_V1;
const auto V2 = GnxLink::GNX_V2;

// Every field of a record on one line: index|time|id|frequency|flags 2,1,0|direction|v1 flash|band|
// extra code|level|period|latitude|longitude|gnx direction|payload.
QString fields(const OrviaRxMessage_t& m)
{
    const auto n = [](auto v) { return QString::number(v); };
    const auto deg = [](double v) { return QString::number(v, 'f', 6); };
    const QDateTime at = MRL::Utils::DateTime::fromMjd(m.mjd, m.secondsOfDay).toQDateTime();
    const QStringList values =
        QStringList() << n(m.platformIndex) << at.toString(Qt::ISODate) << m.platformId << n(m.frequency)
                      << n(m.flagBit2) + n(m.flagBit1) + n(m.flagBit0) << n(m.direction) << n(m.v1FlashValue)
                      << n(m.band) << n(m.extraCode) << n(m.level) << n(m.period) << deg(m.gnxLatitude)
                      << deg(m.gnxLongitude) << n(m.gnxDirection) << QString::fromLatin1(m.payload.toHex());
    return values.join('|');
}

// The last line of this mnemonic the link logged as received: the device's own bytes.
QString receivedLine(const MessageLog& log, const QString& mnemonic)
{
    const QStringList lines =
        log.messages(QtDebugMsg).filter(QRegularExpression("^Receive \\$" + mnemonic + ","));
    return lines.value(lines.size() - 1).mid(8);
}

GpsFormat_t testFormat(qint32 dataLen = 192)
{
    GpsFormat_t f;
    GpsFormat::parseGpsFormatLine(
        QStringLiteral("FMT,,,,248,0,1,1,21,1,10000,0,1,0,22,1,23,22,1,10000,-5,2,1,1,8005,200,16,8,%1,45,1")
            .arg(dataLen),
        f);
    return f;
}

GnxLink::PlatformInfo platform(int index, const QString& id, GpsFormat_t* format)
{
    return {index, id, QStringLiteral("Float"), 120, 5, 1, 0, 401320000, 7, format};
}

// The IP line that reads a slot (no action) or empties it (action "0").
QString emptyIpLine(int index, GnxLink::GnxVersion_t version, const QString& action)
{
    return QStringLiteral("IP,%1,%2").arg(index).arg(action) + QString(",").repeated(version == V2 ? 37 : 34);
}

// A generated firmware file as the window hands it over: split at carriage returns, header dropped.
QList<QByteArray> firmwareRecords(const QString& version, int dataRecords, int recordBytes = 32)
{
    QList<QByteArray> lines =
        gnxsim::Firmware::vanFile(gnxsim::Model::Gnx234, version, dataRecords, recordBytes).split('\r');
    lines.removeFirst();
    return lines;
}

QStringList mnemonics(const QStringList& received)
{
    QStringList out;
    for (const QString& line : received)
        out << line.section(QLatin1Char(','), 0, 0);
    return out;
}

} // namespace

class TestGnxLinkSim : public QObject, private TestSupport::SimLink
{
    Q_OBJECT

    // A GNX134 (V1) or GNX234 (V2).
    bool start(GnxLink::GnxVersion_t version, gnxsim::Mode mode = gnxsim::Mode::App, int platforms = 0)
    {
        return startSim(version == V1 ? gnxsim::Model::Gnx134 : gnxsim::Model::Gnx234, mode, platforms);
    }

private slots:
    void init()
    {
        TestSupport::sandboxSettings();
        TestSupport::CatchingApplication::clearCaught();
        TestSupport::loadGpsFormats("0\n"); // one collection for the whole process: start each case empty
    }
    void cleanup()
    {
        QCOMPARE(TestSupport::CatchingApplication::caught(), QStringList());
        stopSim();
    }

    // Lines as the two generations send them, field by field; the device's lines format back.
    // Each comes after a line of the other generation's length, which must be dropped.
    void liveReport_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("formatsBack");
        QTest::newRow("GNX134 NPR, index is the slot count")
            << V1
            << "NPR,16,24,3,15,12,30,45,1A2B3,401650000,3,123,-120,2700000,-60000,270,64,0102030405060708"
            << "16|2024-03-15T12:30:45Z|1A2B3|401650000|011|123|0|0|0|-120|0|45.000000|-1.000000|270|"
               "0102030405060708"
            << true;
        QTest::newRow("GNX134 NPRF, 28-bit identifier drops its byte")
            << V1
            << "NPRF,5,23,12,31,23,59,59,1ABCDEF,401620500,5,359,271,-95,90,2610000,30000,12,40,EF0A0B0C0D"
            << "5|2023-12-31T23:59:59Z|1ABCDEF|401620500|101|359|271|0|0|-95|90|43.500000|0.500000|12|"
               "0a0b0c0d"
            << true;
        QTest::newRow("GNX234 NPRF")
            << V2 << "NPRF,63,24,2,29,6,7,8,FEDCBA9,401310000,1,45,5,0,-100,300,60001,-1,359,24,A9C0FF"
            << "63|2024-02-29T06:07:08Z|FEDCBA9|401310000|001|45|0|5|0|-100|300|1.000017|"
               "-0.000017|359|c0ff"
            << true;
        // GNX234 NPR, which has no index, with other identifiers, extra codes and payloads.
        const auto gnx234Npr = [](const char* name, const char* id, const char* extra, const char* bits,
                                  const char* hex, const char* payload, bool formatsBack) {
            QTest::newRow(name)
                << V2
                << QString("NPR,25,1,2,0,0,0,%1,401640000,4,7,-110,-2700000,7200000,180,4,%2,%3,%4")
                       .arg(id, extra, bits, hex)
                << QString("-1|2025-01-02T00:00:00Z|%1|401640000|100|7|0|4|%2|-110|0|-45.000000|120.000000|"
                           "180|%3")
                       .arg(id, extra, payload)
                << formatsBack;
        };
        gnx234Npr("GNX234 NPR", "ABCDE", "2", "32", "DEADBEEF", "deadbeef", true);
        gnx234Npr("GNX234 NPR, 28-bit identifier, extra code 0", "ABCDEF1", "0", "40", "F1DEADBEEF",
                  "deadbeef", true);
        gnx234Npr("GNX234 NPR, 28-bit identifier, extra code 2", "1234567", "2", "24", "671122", "671122",
                  false);
        gnx234Npr("GNX234 NPR, payload cut to the bit count", "ABCDE", "2", "20", "11223344", "1122", false);
        QTest::newRow("GNX234 NPR, unparsable numbers are 0, an unparsable year 2000")
            << V2 << "NPR,x,1,2,3,4,5,ABCDE,f,g,d,l,la,lo,gd,b,e,bits,00"
            << "-1|2000-01-02T03:04:05Z|ABCDE|0|000|0|0|0|0|0|0|0.000000|0.000000|0|" << false;
        QTest::newRow("GNX134 NPRF, unparsable index and year")
            << V1 << "NPRF,abc,xx,6,1,8,9,10,ABCDE,1,0,0,0,0,0,0,0,0,8,00"
            << "0|2000-06-01T08:09:10Z|ABCDE|1|000|0|0|0|0|0|0|0.000000|0.000000|0|00" << false;
    }
    void liveReport()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(QString, line);
        QFETCH(QString, expected);
        QFETCH(bool, formatsBack);
        QVERIFY(start(version));
        MessageLog log;
        QSignalSpy spy(link.get(), &GnxLink::sigOrviaMessageReceived);
        // First a line of the other generation's length: dropped and logged, and the link carries on.
        sim->sendRawLine(line.section(',', 0, 0) +
                         QString(",1").repeated(line.count(',') + (version == V1 ? 1 : -1)));
        sim->sendRawLine(line);
        QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 1, kWaitMs);
        QCOMPARE(spy.first().at(1).value<GnxLink::RxOrigin_t>(), GnxLink::RXORIGIN_LIVE);
        const OrviaRxMessage_t m = spy.first().at(0).value<OrviaRxMessage_t>();
        QCOMPARE(fields(m), expected);
        if (formatsBack)
            QCOMPARE(link->toNprLine(m), "$" + GnxFrame::seal(line));
        QCOMPARE(log.count(QtWarningMsg, QStringLiteral("Wrong number of parameters in NPR/NPRF message.")),
                 1);
        QCOMPARE(link->readDeviceInfo().version, version); // the request engine is still usable
    }

    // The receiver's own reports format back to the very line it wrote, the GNX134 short NPR
    // checksum included when the setting asks for it.
    void deviceReports_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<int>("slot"); // slot 0 holds a 20-bit identifier, slot 3 a 28-bit one
        QTest::addColumn<bool>("favourite");
        QTest::addColumn<bool>("shortChecksum");
        QTest::addColumn<bool>("keep");
        for (const auto version : {V1, V2})
            for (const int slot : {0, 3})
                for (const bool favourite : {true, false})
                    QTest::addRow("GNX%d34 %s slot %d", int(version), favourite ? "NPRF" : "NPR", slot)
                        << version << slot << favourite << false << false;
        for (const int slot : {0, 3})
            QTest::addRow("GNX134 NPR slot %d, checksum error kept", slot)
                << V1 << slot << false << true << true;
        QTest::newRow("GNX134 NPR, checksum error not kept") << V1 << 0 << false << true << false;
    }
    void deviceReports()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(int, slot);
        QFETCH(bool, favourite);
        QFETCH(bool, shortChecksum);
        QFETCH(bool, keep);
        auto& settings = TestSupport::sandboxSettings();
        settings.printAtCmdDebugInfo = true; // the link logs each line it receives
        settings.keepChecksumErrorOnNprGnx134 = keep;
        QVERIFY(start(version, gnxsim::Mode::App, 5));
        sim->setGnx134ChecksumQuirk(shortChecksum);
        const QString id = sim->platformSlot(slot).value(3);

        MessageLog log;
        QSignalSpy spy(link.get(), &GnxLink::sigOrviaMessageReceived);
        for (int report = 0; report < 3; ++report) {
            QVERIFY(sim->emitNpr(slot, favourite));
            QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 1, kWaitMs);
            const OrviaRxMessage_t m = spy.takeFirst().at(0).value<OrviaRxMessage_t>();
            const QString line = receivedLine(log, favourite ? "NPRF" : "NPR");
            QCOMPARE(m.platformId, id);
            QCOMPARE(m.platformIndex, favourite ? slot : (version == V1 ? 16 : -1));
            QCOMPARE(m.extraCode, qint16(version == V1 || id.size() == 7 ? 0 : 2));
            const QDateTime at = MRL::Utils::DateTime::fromMjd(m.mjd, m.secondsOfDay).toQDateTime();
            QVERIFY2(qAbs(at.secsTo(sim->clock())) < 120, qPrintable(at.toString(Qt::ISODate)));
            const QString formatted = link->toNprLine(m);
            QCOMPARE(formatted.chopped(2), line.chopped(2));
            QCOMPARE(formatted == line, shortChecksum == keep);
        }
        QCOMPARE(log.count(QtWarningMsg, QStringLiteral("Bad checksum detected on NPR frame.")),
                 shortChecksum ? 3 : 0);
    }

    // Written to the last slot, held by the receiver as sent, read back, with and without a GPS
    // format, for 20- and 28-bit identifiers.
    void platformSlot_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("idType");
        QTest::addColumn<bool>("withFormat");
        for (const auto version : {V1, V2})
            for (const bool withFormat : {true, false})
                for (const QString id : {"1A2B3", "1ABCDEF"})
                    QTest::addRow("GNX%d34 %d characters, %s", int(version), int(id.size()),
                                  withFormat ? "format" : "no format")
                        << version << id << (id.size() == 5 ? "1" : "2") << withFormat;
    }
    void platformSlot()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(QString, id);
        QFETCH(QString, idType);
        QFETCH(bool, withFormat);
        QVERIFY(start(version));
        GpsFormat_t format = testFormat();
        const int index = link->maxPlatformsNumber() - 1;
        link->setPlatformInfo(platform(index, id, withFormat ? &format : nullptr), false);

        const QString sent =
            QStringLiteral("%1,,%2,%3,Float,%4,%5,%6")
                .arg(QString::number(index), idType, id,
                     withFormat ? "1,FMT,0,1,1,21,1,10000,0,1,0,22,1,23,22,1,10000,-5,2,1,248,45,1"
                                : "0,," + QString("0,").repeated(20) + "0",
                     version == V2 ? "120,5,1,0,401320000" : "120,7",
                     withFormat ? "1,8005,200,16,8,192" : "0,0,0,0,0,1");
        QCOMPARE(sim->receivedLines(), QStringList{"IP," + sent});
        QCOMPARE(sim->platformSlot(index).join(','), sent);

        const GnxLink::PlatformInfo read = link->getPlatformInfo(index);
        QCOMPARE(sim->receivedLines().last(), emptyIpLine(index, version, QString()));
        const auto n = [](int v) { return QString::number(v); };
        QCOMPARE(QStringList({n(read.index), read.id, read.label, n(read.repetitionPeriod), n(read.band),
                              n(read.narrowFrequency), n(read.meanDirectionValues)})
                     .join(','),
                 QStringLiteral("%1,%2,Float,120,%3")
                     .arg(n(index), id, version == V2 ? "5,401320000,0" : "0,0,7"));
        QCOMPARE(read.gpsFormat, withFormat ? GpsFormat::instance()->getGpsFormat("FMT") : nullptr);
        if (withFormat) {
            QVERIFY(GpsFormat::compareGpsFormats(*read.gpsFormat, format, false));
            QCOMPARE(read.gpsFormat->origin, GpsFormat::ORIGIN_GNX);
        }
    }

    // Out-of-range data lengths and labels that would break the line never reach the receiver.
    void refusedPlatform_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<int>("dataLen");
        QTest::addColumn<QString>("label");
        QTest::addColumn<QString>("error"); // "no exception": written
        for (const auto version : {V1, V2})
            for (const int dataLen : {0, 1, 254, 255})
                QTest::addRow("GNX%d34 data length %d", int(version), dataLen)
                    << version << dataLen << "Float"
                    << (dataLen == 1 || dataLen == 254
                            ? QString("no exception")
                            : QStringLiteral("Unable to set platform info, data length is not between 1 "
                                             "and 254 (%1)")
                                  .arg(dataLen));
        for (const char* label : {"north, east", "A*B", "$A", "A\nB"})
            QTest::newRow(label) << V2 << 192 << QString::fromLatin1(label) << QString::fromLatin1(label);
    }
    void refusedPlatform()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(int, dataLen);
        QFETCH(QString, label);
        QFETCH(QString, error);
        QVERIFY(start(version));
        GpsFormat_t format = testFormat(dataLen);
        GnxLink::PlatformInfo p = platform(2, "12345", &format);
        p.label = label;
        const QString thrown = TestSupport::thrown([&] { link->setPlatformInfo(p, false); });
        QVERIFY2(thrown.contains(error), qPrintable(thrown));
        if (error == "no exception")
            QCOMPARE(sim->platformSlot(2).last(), QString::number(dataLen));
        else
            QCOMPARE(sim->receivedLines(), QStringList());
    }

    // Recorded writes carry the action "1" so that a played-back script re-creates its slots.
    void recording()
    {
        QVERIFY(start(V2, gnxsim::Mode::App, 2));
        GpsFormat_t format = testFormat();
        link->startRecording();
        link->setPlatformInfo(platform(0, "ABCDE", &format), false);
        link->setPlatformInfo(platform(5, "ABCDEF0", nullptr), true);
        link->deletePlatformInfo(7);
        const QStringList recorded = link->takeRecordedCommands();
        QCOMPARE(recorded.size(), 4);
        QVERIFY(recorded[0].startsWith(QLatin1String("$IP,0,1,1,ABCDE,Float,1,FMT,")));
        QVERIFY(recorded[1].startsWith("$" + emptyIpLine(5, V2, "0") + "*"));
        QVERIFY(recorded[2].startsWith(QLatin1String("$IP,5,1,2,ABCDEF0,Float,0,,")));
        QVERIFY(recorded[3].startsWith("$" + emptyIpLine(7, V2, "0") + "*"));
        QCOMPARE(sim->receivedLines(), QStringList());

        for (const QString& line : recorded)
            link->sendManualCommand(line);
        QCOMPARE(sim->platformSlot(0).value(3), QStringLiteral("ABCDE"));
        QCOMPARE(sim->platformSlot(5).value(3), QStringLiteral("ABCDEF0"));
    }

    // From the application to the bootloader, the whole upload dialogue with its log and progress,
    // then the new version after the reboot, where a further upload is refused.
    void switchAndUpload()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.printAtCmdDebugInfo = true;
        QVERIFY(start(V2));
        link->switchMode();
        QCOMPARE(mnemonics(sim->receivedLines()), (QStringList{"TEST", "GSN", "LIG", "SUA"}));
        QVERIFY(sim->mode() == gnxsim::Mode::Bl);
        sim->clearReceived();

        const QList<QByteArray> records = firmwareRecords(QStringLiteral("4.0.1"), 1);
        MessageLog log;
        QSignalSpy progress(link.get(), &GnxLink::sigFirmwareProgress);
        link->uploadFirmware(records);

        const QStringList received = sim->receivedLines();
        QCOMPARE(mnemonics(received),
                 (QStringList{"TEST", "ATBL", "ERRF", "WRDA", "WRDA", "WRDA", "WRSC", "REBO"}));
        QCOMPARE(progress.size(), 3);
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(received.at(3 + i), "WRDA," + QString::fromLatin1(records[i]));
            QCOMPARE(progress.at(i), (QList<QVariant>{i + 1, 3}));
        }
        QCOMPARE(log.messages(QtInfoMsg),
                 (QStringList{"Unlocking bootloader...", "Erase previous firmware...",
                              "33% uploaded (line 1 on 3)...", "66% uploaded (line 2 on 3)...",
                              "100% uploaded (line 3 on 3)...", "Upload complete.", "Locking bootloader...",
                              "Upgrade OK. Reboot."}));
        // Records stay out of the command trace; the setting comes back afterwards.
        QVERIFY(log.messages(QtDebugMsg).contains(QStringLiteral("Send $ATBL*31")));
        QVERIFY(log.messages(QtDebugMsg).filter(QStringLiteral("Send $WRDA")).isEmpty());
        QCOMPARE(settings.printAtCmdDebugInfo, true);

        QVERIFY(sim->mode() == gnxsim::Mode::App);
        const GnxLink::GnxDeviceInfo info = link->readDeviceInfo();
        QCOMPARE(info.mode, GnxLink::GNX_APP);
        QCOMPARE(info.applicationVersion, QStringLiteral("4.0.1"));

        // In the application an upload is refused before anything is unlocked.
        sim->clearReceived();
        QCOMPARE(TestSupport::thrown([&] { link->uploadFirmware(firmwareRecords("9.9.9", 3)); }),
                 QStringLiteral("Unable to flash firmware, GNX is not in BL mode (2)"));
        QVERIFY(!mnemonics(sim->receivedLines()).contains(QStringLiteral("ATBL")));
        QCOMPARE(sim->applicationVersion(), QStringLiteral("4.0.1"));
    }

    // The receiver refuses a damaged record: the upload stops there with its error and the device
    // stays in the bootloader, from which a new upload goes through.
    void corruptRecordThenRetry()
    {
        QVERIFY(start(V2, gnxsim::Mode::Bl));
        QList<QByteArray> records = firmwareRecords(QStringLiteral("5.0.0"), 6);
        QByteArray& bad = records[3];
        bad[20] = bad[20] == 'A' ? 'B' : 'A'; // a data digit: the record's checksum no longer adds up

        QSignalSpy progress(link.get(), &GnxLink::sigFirmwareProgress);
        QCOMPARE(TestSupport::thrown([&] { link->uploadFirmware(records); }),
                 QStringLiteral("Error in reply: Invalid command: \"$%1\"")
                     .arg(GnxFrame::seal("WRDA," + QString::fromLatin1(bad))));
        QCOMPARE(progress.size(), 3);
        QVERIFY(!mnemonics(sim->receivedLines()).contains(QStringLiteral("WRSC")));
        QVERIFY(sim->mode() == gnxsim::Mode::Bl);

        link->uploadFirmware(firmwareRecords(QStringLiteral("5.0.1"), 6));
        QVERIFY(sim->mode() == gnxsim::Mode::App);
        QCOMPARE(link->readDeviceInfo().applicationVersion, QStringLiteral("5.0.1"));
    }
};

OGM_TEST_MAIN(TestGnxLinkSim)
#include "tst_gnxlink_sim.moc"
