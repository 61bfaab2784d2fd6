// The receiver model driven in process: bytes in, bytes out, clock advanced by hand.
#include "SimWire.h"

#include "sim/Device.h"
#include "sim/Firmware.h"

#include <QJsonDocument>
#include <QTest>

using namespace gnxsim;
using simwire::Line;

Q_DECLARE_METATYPE(gnxsim::Model)
Q_DECLARE_METATYPE(gnxsim::Mode)

namespace {

Options options(Model model, Mode mode = Mode::App, int platforms = 0, int flashRecords = 0)
{
    Options o;
    o.model = model;
    o.mode = mode;
    o.platforms = platforms;
    o.flashRecords = flashRecords;
    o.startTime = QDateTime(QDate(2024, 5, 17), QTime(10, 20, 30), Qt::UTC);
    return o;
}

QString empty(const QString& mnemonic, int count)
{
    return mnemonic + QString(count, QLatin1Char(','));
}

struct Talk
{
    explicit Talk(const Options& o) : dev(o) {}

    QByteArray raw(const QString& payload)
    {
        dev.receive(simwire::frame(payload));
        QByteArray out;
        for (const auto& u : dev.takeOutput())
            out += u.bytes;
        return out;
    }
    QList<Line> send(const QString& payload)
    {
        QList<Line> out;
        for (const QByteArray& l : simwire::lines(raw(payload)))
            out << simwire::parse(l);
        return out;
    }
    // The single answer line (an invalid Line when there is not exactly one).
    Line ask(const QString& payload)
    {
        const QList<Line> l = send(payload);
        return l.size() == 1 ? l[0] : Line{};
    }
    bool acked(const QString& payload, const QString& code)
    {
        const Line l = ask(payload);
        return l.valid && l.mnemonic == "ACK" && l.params == QStringList{code};
    }
    Device dev;
};

// An IP write for slot index with a 20-bit or 28-bit identifier, with or without a GPS format.
QStringList slotWrite(Model model, int index, const QString& id, bool withFormat, const QString& action = {})
{
    QStringList p{QString::number(index), action, id.size() == 5 ? "1" : "2", id, "Test label"};
    if (withFormat) {
        p << "1"
          << "MY-FORMAT"
          << "0"
          << "1"
          << "1"
          << "23"
          << "1"
          << "1"
          << "0"
          << "1"
          << "0"
          << "24"
          << "1"
          << "25"
          << "24"
          << "1"
          << "1"
          << "0"
          << "1"
          << "0"
          << "64"
          << "0"
          << "0";
    } else {
        p << "0"
          << "";
        for (int i = 0; i < 21; ++i)
            p << "0";
    }
    p << "120";
    if (model == Model::Gnx134)
        p << "5";
    else
        p << "4"
          << "1"
          << "1"
          << "0";
    if (withFormat)
        p << "0"
          << "1021"
          << "0"
          << "0"
          << "0"
          << "8";
    else
        p << "0"
          << "0"
          << "0"
          << "0"
          << "0"
          << "1";
    return p;
}

// Decodes a coordinate the way the program does: MSB-first bits, sign, T/U, V/W, TY fold.
double decode(const QByteArray& payload, const QStringList& nine, int limit)
{
    auto bits = [&](int s, int n, bool* ok) {
        *ok = n != 0 && s >= 0 && qint64(s) + n <= 8 * qint64(payload.size());
        quint32 v = 0;
        for (int i = 0; *ok && i < n; ++i)
            v = (v << 1) | ((quint8(payload[(s + i) / 8]) >> (7 - (s + i) % 8)) & 1);
        return v;
    };
    QList<int> f;
    for (const QString& s : nine)
        f << s.toInt();
    bool ok = false;
    double sign = 1.0;
    const quint32 sr = bits(f[0], f[1], &ok);
    if (ok)
        sign = sr * -2.0 + 1.0;
    double value = 0.0;
    const quint32 vr = bits(f[2], f[3], &ok);
    if (ok)
        value = vr;
    double x = sign * value;
    x = double(f[4]) / double(f[5]) * x;
    x = double(f[6]) / double(f[7]) + x;
    if (f[8] != 0 && x > limit * 60000.0)
        x -= limit * 120000.0;
    return x / 60000.0;
}

} // namespace

class TestSimDevice : public QObject
{
    Q_OBJECT

private slots:
    void parameterCounts_data();
    void parameterCounts();
    void testReportsGenerationAndMode();
    void serialNumberForms();
    void softwareSetupWriteIsStoredAndKeepsTheClock();
    void clockWriteSetsTheClockWhichThenRuns();
    void refusedSetupWrites_data();
    void refusedSetupWrites();
    void hardwareSetupWriteIsEchoed();
    void platformSlots_data();
    void platformSlots();
    void refusedSlotWrites_data();
    void refusedSlotWrites();
    void gnx234FlashReadIsBinary();
    void gnx234FlashReadHonoursStartAndLength();
    void gnx134FlashReadIsText();
    void flashErase();
    void bootloaderAcceptsOnlyTestAndUpload_data();
    void bootloaderAcceptsOnlyTestAndUpload();
    void uploadOrdering_data();
    void uploadOrdering();
    void uploadReportsTheNewVersion();
    void corruptRecordIsRefused();
    void liveReports_data();
    void liveReports();
    void noLiveReportsInBootloader();
    void gnx134ChecksumQuirkOnNprOnly();
    void overrideAnswersOnce();
    void badLinesAreRefusedAndRecorded();
    void stalledDeviceRecordsButNeverAnswers();
    void stateRoundTrip();
};

void TestSimDevice::parameterCounts_data()
{
    QTest::addColumn<Model>("model");
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("mnemonic");
    QTest::addColumn<int>("count");
    const Model v1 = Model::Gnx134, v2 = Model::Gnx234;
    const Mode app = Mode::App, bl = Mode::Bl;
    QTest::newRow("134 TEST") << v1 << app << "TEST"
                              << "TEST" << 2;
    QTest::newRow("134 GSN") << v1 << app << "GSN"
                             << "GSN" << 1;
    QTest::newRow("134 LIG") << v1 << app << "LIG"
                             << "LIG" << 15;
    QTest::newRow("134 SETUPSW") << v1 << app << empty("SETUPSW", 12) << "SETUPSW" << 12;
    QTest::newRow("134 SETUPHW") << v1 << app << empty("SETUPHW", 6) << "SETUPHW" << 6;
    QTest::newRow("134 IP") << v1 << app << "IP,3" + QString(35, ',') << "IP" << 36;
    QTest::newRow("134 IFP") << v1 << app << "IFP"
                             << "IFP" << 2;
    QTest::newRow("134 DFP all") << v1 << app << "DFP"
                                 << "DFP" << 0;
    QTest::newRow("134 DFP one") << v1 << app << "DFP,2"
                                 << "DFP" << 1;
    QTest::newRow("134 SETUPSW of 234") << v1 << app << empty("SETUPSW", 14) << "ACK" << 1;
    QTest::newRow("134 IP of 234") << v1 << app << "IP,3" + QString(38, ',') << "ACK" << 1;
    QTest::newRow("134 RFP whole memory") << v1 << app << "RFP,0,16384"
                                          << "ACK" << 1;
    QTest::newRow("134 BL TEST") << v1 << bl << "TEST"
                                 << "TEST" << 2;
    QTest::newRow("134 BL GSN") << v1 << bl << "GSN"
                                << "ACK" << 1;
    QTest::newRow("234 TEST") << v2 << app << "TEST"
                              << "TEST" << 8;
    QTest::newRow("234 GSN") << v2 << app << "GSN"
                             << "GSN" << 2;
    QTest::newRow("234 LIG") << v2 << app << "LIG"
                             << "LIG" << 16;
    QTest::newRow("234 SETUPSW") << v2 << app << empty("SETUPSW", 14) << "SETUPSW" << 14;
    QTest::newRow("234 SETUPHW") << v2 << app << empty("SETUPHW", 7) << "SETUPHW" << 7;
    QTest::newRow("234 IP") << v2 << app << "IP,63" + QString(38, ',') << "IP" << 39;
    QTest::newRow("234 IP slot 64") << v2 << app << "IP,64" + QString(38, ',') << "ACK" << 1;
    QTest::newRow("234 IFP") << v2 << app << "IFP"
                             << "IFP" << 2;
    QTest::newRow("234 SUA") << v2 << app << "SUA"
                             << "SUA" << 1;
    QTest::newRow("234 SETUPSW of 134") << v2 << app << empty("SETUPSW", 12) << "ACK" << 1;
    QTest::newRow("234 SETUPHW of 134") << v2 << app << empty("SETUPHW", 6) << "ACK" << 1;
    QTest::newRow("234 TEST with a parameter") << v2 << app << "TEST,1"
                                               << "ACK" << 1;
    QTest::newRow("234 unknown") << v2 << app << "HELLO"
                                 << "ACK" << 1;
    QTest::newRow("234 RFP per platform") << v2 << app << "RFP,3"
                                          << "ACK" << 1;
    QTest::newRow("234 BL TEST") << v2 << bl << "TEST"
                                 << "TEST" << 6;
    QTest::newRow("234 BL GSN") << v2 << bl << "GSN"
                                << "ACK" << 1;
    QTest::newRow("234 BL LIG") << v2 << bl << "LIG"
                                << "ACK" << 1;
    QTest::newRow("234 BL SETUPSW") << v2 << bl << empty("SETUPSW", 14) << "ACK" << 1;
    QTest::newRow("234 BL SUA") << v2 << bl << "SUA"
                                << "ACK" << 1;
    QTest::newRow("234 BL ATBL") << v2 << bl << "ATBL"
                                 << "ACK" << 1;
}

void TestSimDevice::parameterCounts()
{
    QFETCH(Model, model);
    QFETCH(Mode, mode);
    QFETCH(QString, command);
    QFETCH(QString, mnemonic);
    QFETCH(int, count);
    Talk t(options(model, mode));
    const Line l = t.ask(command);
    QVERIFY2(l.valid, l.raw.constData());
    QCOMPARE(l.mnemonic, mnemonic);
    QCOMPARE(l.params.size(), count);
    if (mnemonic == "ACK")
        QCOMPARE(l.params[0], QString(command.startsWith("ATBL") ? "1" : "0"));
}

void TestSimDevice::testReportsGenerationAndMode()
{
    Talk v1(options(Model::Gnx134));
    QCOMPARE(v1.ask("TEST").params, (QStringList{"GNX134", "APP"}));
    Talk bl(options(Model::Gnx234, Mode::Bl));
    Line l = bl.ask("TEST");
    QCOMPARE(l.params[4], QString("BL"));
    QCOMPARE(l.params[5], bl.dev.bootloaderVersion());
    Talk app(options(Model::Gnx234));
    l = app.ask("TEST");
    QCOMPARE(l.params[4], QString("APP"));
    QCOMPARE(l.params[5], app.dev.bootloaderVersion());
    QCOMPARE(l.params[6], app.dev.applicationVersion());
    QCOMPARE(l.params[7], app.dev.fpgaVersion());
    // The status repeats the versions: application, bootloader, FPGA.
    const Line lig = app.ask("LIG");
    QCOMPARE(lig.params.mid(13),
             (QStringList{app.dev.applicationVersion(), app.dev.bootloaderVersion(), app.dev.fpgaVersion()}));
    QCOMPARE(v1.ask("LIG").params.mid(12),
             (QStringList{v1.dev.applicationVersion(), v1.dev.bootloaderVersion(), v1.dev.fpgaVersion()}));
}

void TestSimDevice::serialNumberForms()
{
    Talk v1(options(Model::Gnx134));
    const Line a = v1.ask("GSN");
    QCOMPARE(a.params, QStringList{v1.dev.serialPart1() + "-" + v1.dev.serialPart2()});
    Talk v2(options(Model::Gnx234));
    QCOMPARE(v2.ask("GSN").params, (QStringList{v2.dev.serialPart1(), v2.dev.serialPart2()}));
}

void TestSimDevice::softwareSetupWriteIsStoredAndKeepsTheClock()
{
    Talk t(options(Model::Gnx234));
    const Line before = t.ask(empty("SETUPSW", 14));
    QCOMPARE(before.params.mid(7, 5), (QStringList{"24", "5", "17", "10", "20"}));
    const Line echo = t.ask("SETUPSW,0,1,33,0,2,1,270,,,,,,6,1");
    QCOMPARE(echo.mnemonic, QString("SETUPSW"));
    QCOMPARE(echo.params,
             (QStringList{"0", "1", "33", "0", "2", "1", "270", "24", "5", "17", "10", "20", "6", "1"}));
    QCOMPARE(t.dev.softwareSetup(), echo.params);
    QCOMPARE(t.ask(empty("SETUPSW", 14)).params, echo.params);
    // Partly empty: the empty fields keep their values.
    QCOMPARE(t.ask("SETUPSW,1,,,,,,,,,,,,,").params.mid(0, 3), (QStringList{"1", "1", "33"}));
}

void TestSimDevice::clockWriteSetsTheClockWhichThenRuns()
{
    Talk t(options(Model::Gnx134));
    const Line echo = t.ask("SETUPSW,,,,,,,,31,12,31,23,58");
    QCOMPARE(echo.params.mid(7), (QStringList{"31", "12", "31", "23", "58"}));
    QCOMPARE(t.dev.clock(), QDateTime(QDate(2031, 12, 31), QTime(23, 58), Qt::UTC));
    t.dev.advance(125000);
    QCOMPARE(t.ask(empty("SETUPSW", 12)).params.mid(7), (QStringList{"32", "1", "1", "0", "0"}));
    QCOMPARE(t.ask("LIG").params.mid(6, 6), (QStringList{"32", "1", "1", "0", "0", "5"}));
    // Only the hour: the date is kept.
    t.ask("SETUPSW,,,,,,,,,,,7,");
    QCOMPARE(t.dev.clock(), QDateTime(QDate(2032, 1, 1), QTime(7, 0), Qt::UTC));
}

void TestSimDevice::refusedSetupWrites_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("contrast 101") << "SETUPSW,,,101,,,,,,,,,,,";
    QTest::newRow("audio 2") << "SETUPSW,2,,,,,,,,,,,,,";
    QTest::newRow("not a number") << "SETUPSW,,,x,,,,,,,,,,,";
    QTest::newRow("month 13") << "SETUPSW,,,,,,,,24,13,1,0,0,,";
    QTest::newRow("30 February") << "SETUPSW,,,,,,,,24,2,30,0,0,,";
    QTest::newRow("minute 60") << "SETUPSW,,,,,,,,,,,,60,,";
    QTest::newRow("band 9") << "SETUPSW,,,,,,,,,,,,,9,";
    QTest::newRow("offset 360") << "SETUPSW,,,,,,360,,,,,,,,";
    QTest::newRow("antenna type 3") << "SETUPHW,,,,3,,,";
    QTest::newRow("compass mode 4") << "SETUPHW,,,,,4,,";
    QTest::newRow("proximity 2") << "SETUPHW,,,,,,,2";
}

void TestSimDevice::refusedSetupWrites()
{
    QFETCH(QString, command);
    Talk t(options(Model::Gnx234));
    const QStringList sw = t.dev.softwareSetup(), hw = t.dev.hardwareSetup();
    const QDateTime clock = t.dev.clock();
    QVERIFY(t.acked(command, "0"));
    QCOMPARE(t.dev.softwareSetup(), sw);
    QCOMPARE(t.dev.hardwareSetup(), hw);
    QCOMPARE(t.dev.clock(), clock);
}

void TestSimDevice::hardwareSetupWriteIsEchoed()
{
    Talk t(options(Model::Gnx234));
    const Line echo = t.ask("SETUPHW,1,1,-25,2,3,-2.5E,1");
    QCOMPARE(echo.params, (QStringList{"1", "1", "-25", "2", "3", "-2.5E", "1"}));
    QCOMPARE(t.ask(empty("SETUPHW", 7)).params, echo.params);
    Talk v1(options(Model::Gnx134));
    QCOMPARE(v1.ask("SETUPHW,0,1,12,1,0,3").params, (QStringList{"0", "1", "12", "1", "0", "3"}));
}

void TestSimDevice::platformSlots_data()
{
    QTest::addColumn<Model>("model");
    QTest::addColumn<QString>("id");
    QTest::newRow("134, 20-bit") << Model::Gnx134 << "1A2B3";
    QTest::newRow("134, 28-bit") << Model::Gnx134 << "1A2B3C4";
    QTest::newRow("234, 20-bit") << Model::Gnx234 << "ABCDE";
    QTest::newRow("234, 28-bit") << Model::Gnx234 << "ABCDEF1";
}

void TestSimDevice::platformSlots()
{
    QFETCH(Model, model);
    QFETCH(QString, id);
    const int count = model == Model::Gnx134 ? 36 : 39;
    const int last = model == Model::Gnx134 ? 15 : 63;
    Talk t(options(model));
    const QString read = QString::number(last) + QString(count - 1, ',');
    // A free slot answers its index and empty fields.
    Line l = t.ask("IP," + read);
    QCOMPARE(l.params.size(), count);
    QCOMPARE(l.params[0], QString::number(last));
    QVERIFY(l.params.mid(1).join("").isEmpty());
    QVERIFY(t.dev.platformSlot(last).isEmpty());

    // Write, echo, read back.
    const QStringList write = slotWrite(model, last, id.toLower(), true);
    QCOMPARE(write.size(), count);
    l = t.ask("IP," + write.join(','));
    QStringList stored = write;
    stored[3] = id; // identifiers are kept in upper case
    QCOMPARE(l.mnemonic, QString("IP"));
    QCOMPARE(l.params, stored);
    QCOMPARE(t.ask("IP," + read).params, stored);
    QCOMPARE(t.dev.platformSlot(last), stored);

    // Its messages go to flash; a new identifier is refused without a re-creation.
    QVERIFY(t.dev.emitNpr(last, true));
    t.dev.takeOutput();
    QCOMPARE(t.dev.flashRecordCount(), 1);
    QStringList other = slotWrite(model, last, "FFFFF", false);
    QVERIFY(t.acked("IP," + other.join(','), "0"));
    // An update in place keeps the flash data.
    QStringList relabel = write;
    relabel[4] = "New label";
    QCOMPARE(t.ask("IP," + relabel.join(',')).params[4], QString("New label"));
    QCOMPARE(t.dev.flashRecordCount(), 1);

    // Clear, then re-create: the flash data of the platform is gone.
    const QString clear = QString::number(last) + ",0" + QString(count - 2, ',');
    l = t.ask("IP," + clear);
    QCOMPARE(l.params.size(), count);
    QVERIFY(l.params.mid(1).join("").isEmpty());
    QVERIFY(t.dev.platformSlot(last).isEmpty());
    QCOMPARE(t.dev.flashRecordCount(), 0);
    other[1] = "1";
    l = t.ask("IP," + other.join(','));
    QCOMPARE(l.params[3], QString("FFFFF"));
    QCOMPARE(l.params[1], QString()); // the action is not stored
    QCOMPARE(l.params.mid(5, 2), (QStringList{"0", ""}));
    QCOMPARE(l.params.mid(count - 6), (QStringList{"0", "0", "0", "0", "0", "1"}));

    // Re-creation over a used slot changes the identifier and drops its messages.
    QVERIFY(t.dev.emitNpr(last, true));
    t.dev.takeOutput();
    QStringList recreate = slotWrite(model, last, id, true, "1");
    QCOMPARE(t.ask("IP," + recreate.join(',')).params[3], id);
    QCOMPARE(t.dev.flashRecordCount(), 0);
}

void TestSimDevice::refusedSlotWrites_data()
{
    QTest::addColumn<Model>("model");
    QTest::addColumn<int>("field");
    QTest::addColumn<QString>("value");
    const Model v1 = Model::Gnx134, v2 = Model::Gnx234;
    QTest::newRow("index 16 on 134") << v1 << 0 << "16";
    QTest::newRow("index -1") << v2 << 0 << "-1";
    QTest::newRow("action 2") << v2 << 1 << "2";
    QTest::newRow("type 2 for 5 characters") << v2 << 2 << "2";
    QTest::newRow("identifier not hex") << v2 << 3 << "1234G";
    QTest::newRow("identifier of 6") << v2 << 3 << "123456";
    QTest::newRow("format flag 2") << v2 << 5 << "2";
    QTest::newRow("format without a name") << v2 << 6 << "";
    QTest::newRow("gps check 2") << v2 << 27 << "2";
    QTest::newRow("band 9") << v2 << 29 << "9";
    QTest::newRow("modulation 3") << v2 << 30 << "3";
    QTest::newRow("data length 0 on 234") << v2 << 38 << "0";
    QTest::newRow("data length 255 on 234") << v2 << 38 << "255";
    QTest::newRow("data length 0 on 134") << v1 << 35 << "0";
    QTest::newRow("polynom not hex") << v1 << 31 << "XYZ";
}

void TestSimDevice::refusedSlotWrites()
{
    QFETCH(Model, model);
    QFETCH(int, field);
    QFETCH(QString, value);
    Talk t(options(model));
    QStringList p = slotWrite(model, 2, "12345", true);
    QVERIFY(t.ask("IP," + p.join(',')).valid); // the base write is accepted
    p[field] = value;
    QVERIFY(t.acked("IP," + p.join(','), "0"));
    QCOMPARE(t.dev.platformSlot(2), slotWrite(model, 2, "12345", true));
}

void TestSimDevice::gnx234FlashReadIsBinary()
{
    Talk t(options(Model::Gnx234, Mode::App, 6, 40));
    const QByteArray records = t.dev.flashBytes();
    const Line ifp = t.ask("IFP");
    QCOMPARE(ifp.params, (QStringList{"0", QString::number(records.size() + 1)})); // the end mark is included

    QList<simwire::RfpFrame> frames;
    qint64 n = 0;
    QByteArray data;
    QVERIFY(simwire::cutRfp(t.raw("RFP,0,16384"), &frames, &n, &data));
    QCOMPARE(n, 16384 / 128 + 1);
    QCOMPARE(frames.size(), int(n) + 1);
    QCOMPARE(frames.first().block.right(4), QByteArray::fromHex("00000081"));
    QVERIFY(frames.last().block.isEmpty());
    QCOMPARE(data.size(), 16384);
    QCOMPARE(data.left(records.size()), records);
    QCOMPARE(data.mid(records.size()), QByteArray(16384 - records.size(), '\xFF'));
    QCOMPARE(frames[1].a, QString("1"));
    QCOMPARE(frames[2].b, QString("128"));
}

void TestSimDevice::gnx234FlashReadHonoursStartAndLength()
{
    Talk t(options(Model::Gnx234, Mode::App, 3, 10));
    const QByteArray memory = t.dev.readFlash(0, 4096);
    QList<simwire::RfpFrame> frames;
    qint64 n = 0;
    QByteArray data;
    QVERIFY(simwire::cutRfp(t.raw("RFP,100,300"), &frames, &n, &data));
    QCOMPARE(n, 4); // three data blocks, the last padded
    QCOMPARE(data.left(300), memory.mid(100, 300));
    QCOMPARE(data.mid(300), QByteArray(84, '\xFF'));
    // Past the end of the memory there is no data block at all.
    frames.clear();
    data.clear();
    QVERIFY(simwire::cutRfp(t.raw("RFP,2097152,16384"), &frames, &n, &data));
    QCOMPARE(n, 1);
    QCOMPARE(frames.size(), 2);
    QVERIFY(data.isEmpty());
    QVERIFY(t.acked("RFP,-1,10", "0"));
    QVERIFY(t.acked("RFP,0,x", "0"));
}

void TestSimDevice::gnx134FlashReadIsText()
{
    Talk t(options(Model::Gnx134, Mode::App, 4, 40));
    const QByteArray dump = t.dev.platformFlashBytes(1);
    QVERIFY(dump.size() > 128);
    const QList<Line> lines = t.send("RFP,1");
    QByteArray data;
    for (int i = 0; i < lines.size(); ++i) {
        QVERIFY(lines[i].valid);
        QCOMPARE(lines[i].mnemonic, QString("RFP"));
        QCOMPARE(lines[i].params.size(), 2);
        if (i == lines.size() - 1) {
            QCOMPARE(lines[i].params, (QStringList{"0", ""}));
        } else {
            QCOMPARE(lines[i].params[0], QString::number(i + 1));
            data += QByteArray::fromHex(lines[i].params[1].toLatin1());
        }
    }
    QCOMPARE(data, dump);
    // A free slot has nothing: only the closing line.
    QCOMPARE(t.send("RFP,9").size(), 1);
    QVERIFY(t.acked("RFP,16", "0"));
    const Line ifp = t.ask("IFP");
    QCOMPARE(ifp.params, (QStringList{"0", QString::number(t.dev.flashBytes().size())}));
}

void TestSimDevice::flashErase()
{
    Talk v1(options(Model::Gnx134, Mode::App, 3, 30));
    const QByteArray keep = v1.dev.platformFlashBytes(2);
    QCOMPARE(v1.ask("DFP,1").params, QStringList{"1"});
    QVERIFY(v1.dev.platformFlashBytes(1).isEmpty());
    QCOMPARE(v1.dev.platformFlashBytes(2), keep);
    QCOMPARE(v1.ask("DFP").params, QStringList());
    QCOMPARE(v1.dev.flashRecordCount(), 0);
    QVERIFY(v1.acked("DFP,16", "0"));

    Talk v2(options(Model::Gnx234, Mode::App, 3, 30));
    QCOMPARE(v2.ask("DFP").mnemonic, QString("DFP"));
    QCOMPARE(v2.dev.flashRecordCount(), 0);
    QCOMPARE(v2.ask("IFP").params, (QStringList{"0", "0"}));
}

void TestSimDevice::bootloaderAcceptsOnlyTestAndUpload_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("mnemonic");
    QTest::newRow("TEST") << "TEST"
                          << "TEST";
    QTest::newRow("ATBL") << "ATBL"
                          << "ACK";
    QTest::newRow("REBO") << "REBO"
                          << "ACK";
    for (const char* c : {"GSN", "LIG", "IFP", "DFP", "SUA", "RFP,0,128"})
        QTest::newRow(c) << c << "ACK";
    QTest::newRow("SETUPHW") << empty("SETUPHW", 7) << "ACK";
    QTest::newRow("IP") << "IP,0" + QString(38, ',') << "ACK";
}

void TestSimDevice::bootloaderAcceptsOnlyTestAndUpload()
{
    QFETCH(QString, command);
    QFETCH(QString, mnemonic);
    Talk t(options(Model::Gnx234, Mode::Bl));
    const Line l = t.ask(command);
    QCOMPARE(l.mnemonic, mnemonic);
    if (mnemonic == "ACK")
        QCOMPARE(l.params[0], QString(command == "ATBL" || command == "REBO" ? "1" : "0"));
}

void TestSimDevice::uploadOrdering_data()
{
    const QString version = Firmware::encode({Firmware::Version, 0, "7.0"});
    const QString data = Firmware::encode({Firmware::Data, 0, QByteArray(16, 'x')});
    const QString end = Firmware::encode({Firmware::End, 16, {}});
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<QStringList>("commands");
    QTest::addColumn<QString>("codes");
    QTest::addColumn<Mode>("finalMode");
    QTest::newRow("upload commands refused in application")
        << Mode::App << QStringList{"ATBL", "ERRF", "WRDA," + data, "WRSC"} << "0000" << Mode::App;
    QTest::newRow("ERRF needs ATBL") << Mode::Bl << QStringList{"ERRF", "ATBL", "ERRF"} << "011" << Mode::Bl;
    QTest::newRow("WRDA needs ERRF") << Mode::Bl << QStringList{"ATBL", "WRDA," + data} << "10" << Mode::Bl;
    QTest::newRow("WRSC needs the end record")
        << Mode::Bl << QStringList{"ATBL", "ERRF", "WRDA," + version, "WRDA," + data, "WRSC"} << "11110"
        << Mode::Bl;
    QTest::newRow("REBO needs WRSC after an erase")
        << Mode::Bl << QStringList{"ATBL", "ERRF", "REBO", "TEST"} << "110T" << Mode::Bl;
    QTest::newRow("REBO without an erase goes back to the application")
        << Mode::Bl << QStringList{"ATBL", "REBO"} << "11" << Mode::App;
    QTest::newRow("nothing after the end record")
        << Mode::Bl << QStringList{"ATBL", "ERRF", "WRDA," + data, "WRDA," + end, "WRDA," + data} << "11110"
        << Mode::Bl;
    QTest::newRow("complete") << Mode::Bl
                              << QStringList{"ATBL", "ERRF", "WRDA," + version, "WRDA," + data, "WRDA," + end,
                                             "WRSC", "REBO"}
                              << "1111111" << Mode::App;
    QTest::newRow("SUA then REBO") << Mode::App << QStringList{"SUA", "REBO"} << "S1" << Mode::App;
}

void TestSimDevice::uploadOrdering()
{
    QFETCH(Mode, mode);
    QFETCH(QStringList, commands);
    QFETCH(QString, codes);
    QFETCH(Mode, finalMode);
    Talk t(options(Model::Gnx234, mode));
    for (int i = 0; i < commands.size(); ++i) {
        const Line l = t.ask(commands[i]);
        QVERIFY(l.valid);
        const QChar code = codes[i];
        if (code == 'T')
            QCOMPARE(l.mnemonic, QString("TEST"));
        else if (code == 'S')
            QCOMPARE(l.mnemonic + l.params.join(','), QString("SUA1"));
        else
            QCOMPARE(l.mnemonic + "," + l.params.join(','), QString("ACK,") + code);
    }
    QCOMPARE(t.dev.mode(), finalMode);
}

void TestSimDevice::uploadReportsTheNewVersion()
{
    Talk t(options(Model::Gnx234));
    QCOMPARE(t.ask("SUA").params, QStringList{"1"});
    QCOMPARE(t.ask("TEST").params.size(), 6);
    const QList<QByteArray> lines = Firmware::vanFile(Model::Gnx234, "8.1.0-rc2", 50).split('\r');
    QVERIFY(t.acked("ATBL", "1"));
    QVERIFY(t.acked("ERRF", "1"));
    QCOMPARE(t.dev.applicationVersion(), QString());
    for (int i = 1; i < lines.size(); ++i)
        QVERIFY2(t.acked("WRDA," + QString::fromLatin1(lines[i]), "1"), lines[i].constData());
    QVERIFY(t.acked("WRSC", "1"));
    QVERIFY(t.acked("WRDA," + QString::fromLatin1(lines[1]), "0")); // locked
    QVERIFY(t.acked("REBO", "1"));
    const Line test = t.ask("TEST");
    QCOMPARE(test.params.size(), 8);
    QCOMPARE(test.params[6], QString("8.1.0-rc2"));
    QCOMPARE(t.ask("LIG").params[13], QString("8.1.0-rc2"));
}

void TestSimDevice::corruptRecordIsRefused()
{
    Talk t(options(Model::Gnx234, Mode::Bl));
    QVERIFY(t.acked("ATBL", "1"));
    QVERIFY(t.acked("ERRF", "1"));
    QString record = Firmware::encode({Firmware::Data, 0, QByteArray::fromHex("DEADBEEF")});
    QString corrupt = record;
    corrupt[9] = corrupt[9] == '0' ? '1' : '0';
    QVERIFY(t.acked("WRDA," + corrupt, "0"));
    QVERIFY(t.acked("WRDA,", "0"));
    QVERIFY(t.acked("WRDA," + record, "1"));
    // A gap in the addresses is refused too, then the right address is accepted.
    QVERIFY(t.acked("WRDA," + Firmware::encode({Firmware::Data, 8, QByteArray(4, 'a')}), "0"));
    QVERIFY(t.acked("WRDA," + Firmware::encode({Firmware::Data, 4, QByteArray(4, 'a')}), "1"));
    QVERIFY(t.acked("WRDA," + Firmware::encode({Firmware::End, 8, {}}), "1"));
    QVERIFY(t.acked("WRSC", "1"));
    QVERIFY(t.acked("REBO", "1"));
    QCOMPARE(t.dev.applicationVersion(), QString("UNKNOWN")); // no version record was sent
}

void TestSimDevice::liveReports_data()
{
    QTest::addColumn<Model>("model");
    QTest::newRow("134") << Model::Gnx134;
    QTest::newRow("234") << Model::Gnx234;
}

void TestSimDevice::liveReports()
{
    QFETCH(Model, model);
    const bool v1 = model == Model::Gnx134;
    Options o = options(model, Mode::App, 6, 0);
    o.liveIntervalMs = 1000;
    Talk t(o);
    QCOMPARE(t.dev.msUntilNextEvent(), 1000);
    t.dev.advance(999);
    QVERIFY(!t.dev.hasOutput());
    t.dev.advance(59001);
    const QList<Device::OutUnit> units = t.dev.takeOutput();
    QCOMPARE(units.size(), 60);
    const QStringList lig = t.ask("LIG").params;
    const double rxLat = lig[1].toDouble() / 60000, rxLon = lig[2].toDouble() / 60000;
    int favourites = 0, decoded = 0;
    for (int i = 0; i < units.size(); ++i) {
        const Line l = simwire::parse(units[i].bytes);
        QVERIFY2(l.valid, units[i].bytes.constData());
        QCOMPARE(units[i].answer, quint64(0));
        const bool nprf = l.mnemonic == "NPRF";
        QVERIFY(nprf || l.mnemonic == "NPR");
        QCOMPARE(l.params.size(), (v1 ? 17 : 18) + (nprf ? 2 : 0));
        QStringList p = l.params;
        const int index = v1 || nprf ? p.takeFirst().toInt() : -1;
        if (v1 && !nprf)
            QCOMPARE(index, 16);
        // Time: the device clock at the report, one report a second from 10:20:31.
        const QDateTime t0 = QDateTime(QDate(2000 + p[0].toInt(), p[1].toInt(), p[2].toInt()),
                                       QTime(p[3].toInt(), p[4].toInt(), p[5].toInt()), Qt::UTC);
        QCOMPARE(t0, QDateTime(QDate(2024, 5, 17), QTime(10, 20, 31), Qt::UTC).addSecs(i));
        const QString id = p[6];
        QVERIFY(id.size() == 5 || id.size() == 7);
        const quint32 frequency = p[7].toUInt();
        QVERIFY(frequency >= 399900000 && frequency <= 401690000);
        QCOMPARE(p[8], QString("3"));
        QVERIFY(p[9].toInt() >= 0 && p[9].toInt() < 360);
        const int extra = v1 ? 0 : 2 * (nprf ? 1 : 0);
        const int level = p[10 + extra + (v1 && nprf ? 1 : 0)].toInt();
        QVERIFY(level >= -135 && level <= -100);
        const QString hex = p.last();
        const int bits = p[p.size() - 2].toInt();
        QCOMPARE(bits, int(hex.size()) * 4);
        QByteArray payload = QByteArray::fromHex(hex.toLatin1());
        if (id.size() == 7)
            QCOMPARE(quint8(payload[0]), quint8(id.right(2).toUInt(nullptr, 16)));
        if (!nprf)
            continue;
        ++favourites;
        QVERIFY(index >= 0 && index < 6);
        const QStringList slot = t.dev.platformSlot(index);
        QCOMPARE(id, slot[3]);
        QCOMPARE(p[v1 ? 12 : 13], slot[28]); // period
        if (slot[5] != "1")
            continue;
        // What the program does: drop the identifier byte, then put a zero byte back in front.
        if (id.size() == 7)
            payload = QByteArray(1, '\0') + payload.mid(1);
        const double lat = decode(payload, slot.mid(7, 9), 90), lon = decode(payload, slot.mid(16, 9), 180);
        QVERIFY2(qAbs(lat - rxLat) < 2.0 && qAbs(lon - rxLon) < 3.0,
                 qPrintable(QString("%1 %2 far from %3 %4").arg(lat).arg(lon).arg(rxLat).arg(rxLon)));
        ++decoded;
    }
    QVERIFY(favourites > 20);
    QVERIFY(decoded > 10);
    // Every report is also kept in flash (GNX134: favourites only).
    QCOMPARE(t.dev.flashRecordCount(), v1 ? favourites : 60);
}

void TestSimDevice::noLiveReportsInBootloader()
{
    Options o = options(Model::Gnx234, Mode::Bl, 6);
    o.liveIntervalMs = 500;
    Talk t(o);
    t.dev.advance(10000);
    QVERIFY(!t.dev.hasOutput());
    QVERIFY(!t.dev.emitNpr(-1, true));
}

void TestSimDevice::gnx134ChecksumQuirkOnNprOnly()
{
    Talk t(options(Model::Gnx134, Mode::App, 2));
    t.dev.setGnx134ChecksumQuirk(true);
    QVERIFY(t.dev.emitNpr(-1, false));
    QVERIFY(t.dev.emitNpr(0, true));
    const QList<Device::OutUnit> units = t.dev.takeOutput();
    QCOMPARE(units.size(), 2);
    const QByteArray npr = units[0].bytes.chopped(2);
    QVERIFY(!simwire::parse(units[0].bytes).valid);
    quint8 x = 0;
    for (char c : npr.mid(1, npr.size() - 6))
        x ^= quint8(c);
    QCOMPARE(npr.right(2), QByteArray::number(x, 16).toUpper().rightJustified(2, '0'));
    QVERIFY(simwire::parse(units[1].bytes).valid); // NPRF keeps the full checksum
    // The other generation ignores the switch.
    Talk v2(options(Model::Gnx234));
    v2.dev.setGnx134ChecksumQuirk(true);
    QVERIFY(v2.dev.emitNpr(-1, false));
    QVERIFY(simwire::parse(v2.dev.takeOutput().first().bytes).valid);
}

void TestSimDevice::overrideAnswersOnce()
{
    Talk t(options(Model::Gnx234));
    t.dev.overrideNextReply("gsn", {"1", "2", "3"});
    t.dev.overrideNextReply("SETUPHW", {"0"}, "ACK");
    QCOMPARE(t.ask("GSN").params, (QStringList{"1", "2", "3"}));
    QCOMPARE(t.ask("GSN").params.size(), 2);
    const QStringList hw = t.dev.hardwareSetup();
    QVERIFY(t.acked("SETUPHW,1,1,1,1,1,x,1", "0"));
    QCOMPARE(t.dev.hardwareSetup(), hw); // not executed
}

void TestSimDevice::badLinesAreRefusedAndRecorded()
{
    Talk t(options(Model::Gnx234));
    t.dev.receive("$TEST*3D\r\n");
    t.dev.receive("TEST\r\n");
    t.dev.receive("$GS");
    t.dev.receive("N*70\r\n\r\n");
    const QList<Device::OutUnit> units = t.dev.takeOutput();
    QCOMPARE(units.size(), 3);
    QCOMPARE(units[0].bytes, QByteArray("$ACK,0*7F\r\n"));
    QCOMPARE(units[1].bytes, QByteArray("$ACK,0*7F\r\n"));
    QVERIFY(units[2].bytes.startsWith("$GSN,"));
    QCOMPARE(t.dev.receivedLines(), (QStringList{"TEST", "TEST", "GSN"}));
    t.dev.clearReceived();
    t.ask(empty("SETUPSW", 14));
    QCOMPARE(t.dev.receivedLines(), QStringList{empty("SETUPSW", 14)});
    // An endless line without a line end is dropped, and the device still answers afterwards.
    t.dev.receive(QByteArray(10000, 'A'));
    QCOMPARE(t.ask("GSN").mnemonic, QString("GSN"));
}

void TestSimDevice::stalledDeviceRecordsButNeverAnswers()
{
    Options o = options(Model::Gnx234, Mode::App, 2);
    o.liveIntervalMs = 100;
    Talk t(o);
    t.dev.setStalled(true);
    QVERIFY(t.send(empty("SETUPHW", 7) + "1").isEmpty());
    t.dev.advance(1000);
    QVERIFY(!t.dev.hasOutput());
    QCOMPARE(t.dev.receivedLines().size(), 1);
    t.dev.setStalled(false);
    QCOMPARE(t.ask("GSN").mnemonic, QString("GSN"));
}

void TestSimDevice::stateRoundTrip()
{
    Talk a(options(Model::Gnx134, Mode::App, 3, 12));
    a.ask("SETUPSW,0,0,5,0,1,1,90,,,,,");
    a.ask("SETUPHW,1,0,7,1,1,W3");
    a.ask("IP," + slotWrite(Model::Gnx134, 9, "ABCDE", true).join(','));
    const QJsonObject state = a.dev.toJson();
    QVERIFY(a.dev.revision() > 0);

    Device b(options(Model::Gnx134));
    QString error;
    QVERIFY2(b.fromJson(QJsonDocument::fromJson(QJsonDocument(state).toJson()).object(), &error),
             qPrintable(error));
    QCOMPARE(b.softwareSetup().mid(0, 7), a.dev.softwareSetup().mid(0, 7));
    QCOMPARE(b.hardwareSetup(), a.dev.hardwareSetup());
    for (int i = 0; i < 16; ++i)
        QCOMPARE(b.platformSlot(i), a.dev.platformSlot(i));
    QCOMPARE(b.flashBytes(), a.dev.flashBytes());
    QCOMPARE(b.flashRecordCount(), 12);
    QVERIFY(qAbs(b.clock().secsTo(a.dev.clock())) <= 2);

    Device other(options(Model::Gnx234));
    QVERIFY(!other.fromJson(state, &error));
    QVERIFY(!error.isEmpty());
}

QTEST_GUILESS_MAIN(TestSimDevice)
#include "tst_simdevice.moc"
