// Framing, payload bit fields, GPS format encoding, firmware records and the formats file.
#include "sim/BitPack.h"
#include "sim/Firmware.h"
#include "sim/Frame.h"
#include "sim/PositionFormat.h"

#include <QFile>
#include <QRegularExpression>
#include <QTest>

using namespace gnxsim;

class TestSimCodecs : public QObject
{
    Q_OBJECT

private slots:
    void frames_data();
    void frames();
    void parseLine_data();
    void parseLine();
    void gnx134QuirkCoversPayloadWithoutLastTwoCharacters();
    void msbFieldsMatchTheHandExample();
    void coordinatesRoundTrip_data();
    void coordinatesRoundTrip();
    void unrepresentableValuesAreClamped();
    void firmwareRecordByHand();
    void corruptRecordsAreRefused_data();
    void corruptRecordsAreRefused();
    void vanFileIsWellFormed();
    void shippedFormatsFileMatchesTheEmulator();
};

void TestSimCodecs::frames_data()
{
    QTest::addColumn<QString>("mnemonic");
    QTest::addColumn<QStringList>("params");
    QTest::addColumn<QByteArray>("wire");
    QTest::newRow("no parameters") << "TEST" << QStringList() << QByteArray("$TEST*3C\r\n");
    QTest::newRow("ack") << "ACK" << QStringList{"1"} << QByteArray("$ACK,1*7E\r\n");
    QTest::newRow("leading zero") << "TEST" << QStringList{"AQ"} << QByteArray("$TEST,AQ*00\r\n");
    QTest::newRow("one") << "TEST" << QStringList{"AP"} << QByteArray("$TEST,AP*01\r\n");
    QTest::newRow("empty parameters") << "GSN" << QStringList{"", ""} << QByteArray("$GSN,,*70\r\n");
}

void TestSimCodecs::frames()
{
    QFETCH(QString, mnemonic);
    QFETCH(QStringList, params);
    QFETCH(QByteArray, wire);
    QCOMPARE(Frame::frame(Frame::payloadOf(mnemonic, params)), wire);
}

void TestSimCodecs::parseLine_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<bool>("framed");
    QTest::addColumn<bool>("checksumOk");
    QTest::addColumn<QString>("mnemonic");
    QTest::addColumn<int>("paramCount");
    QTest::newRow("good") << QByteArray("$TEST*3C") << true << true << "TEST" << 0;
    QTest::newRow("bad checksum") << QByteArray("$TEST*3D") << true << false << "TEST" << 0;
    QTest::newRow("lower-case hex") << QByteArray("$TEST*3c") << false << false << "$TEST*3c" << 0;
    QTest::newRow("no checksum") << QByteArray("$TEST") << false << false << "$TEST" << 0;
    QTest::newRow("unframed") << QByteArray("TEST") << false << false << "TEST" << 0;
    QTest::newRow("empty read") << QByteArray("$SETUPHW,,,,,,*72") << true << true << "SETUPHW" << 6;
}

void TestSimCodecs::parseLine()
{
    QFETCH(QByteArray, line);
    QFETCH(bool, framed);
    QFETCH(bool, checksumOk);
    QFETCH(QString, mnemonic);
    QFETCH(int, paramCount);
    const Frame::Parsed p = Frame::parseLine(line);
    QCOMPARE(p.framed, framed);
    QCOMPARE(p.checksumOk, checksumOk);
    QCOMPARE(p.mnemonic, mnemonic);
    QCOMPARE(p.params.size(), paramCount);
}

void TestSimCodecs::gnx134QuirkCoversPayloadWithoutLastTwoCharacters()
{
    const QByteArray payload = "NPR,16,24,1,1,0,0,0,12345,401650000,3,10,-120,0,0,0,16,ABCD";
    const QByteArray line = Frame::frameGnx134Quirk(payload);
    // The program's second check: XOR from after "$" up to, not including, the last five characters.
    const QByteArray body = line.left(line.size() - 2); // without CR LF
    quint8 x = 0;
    for (char c : body.mid(1, body.size() - 1 - 5))
        x ^= quint8(c);
    QCOMPARE(body.right(2), QByteArray::number(x, 16).toUpper().rightJustified(2, '0'));
    QVERIFY(!Frame::parseLine(body).checksumOk);
}

void TestSimCodecs::msbFieldsMatchTheHandExample()
{
    // 5,400,000 in 24 bits from bit 0 is 52 65 C0.
    QByteArray payload(3, '\0');
    QVERIFY(encodeCoordinate(payload, {0, 0, 0, 24, 1, 1, 0, 1, 0}, 5400000, 90));
    QCOMPARE(payload.toHex().toUpper(), QByteArray("5265C0"));
    // A one-bit sign at bit 3 and a value across a byte boundary.
    QByteArray b(2, '\0');
    BitPack::putMsb(b, 3, 1, 1);
    BitPack::putMsb(b, 6, 5, 0x15);
    QCOMPARE(b.toHex().toUpper(), QByteArray("12A0")); // 0001 0010 1010 0000
    QCOMPARE(BitPack::getMsb(b, 6, 5), quint64(0x15));
}

void TestSimCodecs::coordinatesRoundTrip_data()
{
    QTest::addColumn<int>("format");
    QTest::addColumn<double>("lat");
    QTest::addColumn<double>("lon");
    const auto& formats = PositionFormat::builtins();
    const QList<QPair<double, double>> points{{43.6047, 1.4442}, {-33.8688, 151.2093}, {0.0, 0.0},
                                              {89.999, -179.99}, {-89.5, 179.5},       {-0.0001, -0.0001}};
    for (int f = 0; f < formats.size(); ++f)
        for (const auto& p : points)
            QTest::addRow("%s %g %g", qPrintable(formats[f].name), p.first, p.second)
                << f << p.first << p.second;
}

void TestSimCodecs::coordinatesRoundTrip()
{
    QFETCH(int, format);
    QFETCH(double, lat);
    QFETCH(double, lon);
    const PositionFormat& f = PositionFormat::builtins()[format];
    QByteArray payload(f.payloadBytes(), '\xA5');
    QVERIFY(encodeCoordinate(payload, f.lat, qRound64(lat * 60000), 90));
    QVERIFY(encodeCoordinate(payload, f.lon, qRound64(lon * 60000), 180));
    // Tolerance: one raw step of the field.
    const double latStep = double(f.lat.t) / f.lat.u / 60000.0, lonStep = double(f.lon.t) / f.lon.u / 60000.0;
    QVERIFY2(qAbs(decodeCoordinate(payload, f.lat, 90) / 60000.0 - lat) <= latStep,
             qPrintable(QString::number(decodeCoordinate(payload, f.lat, 90) / 60000.0)));
    QVERIFY2(qAbs(decodeCoordinate(payload, f.lon, 180) / 60000.0 - lon) <= lonStep,
             qPrintable(QString::number(decodeCoordinate(payload, f.lon, 180) / 60000.0)));
}

void TestSimCodecs::unrepresentableValuesAreClamped()
{
    QByteArray payload(4, '\0');
    // No sign field and no fold: a negative value cannot be written.
    QVERIFY(!encodeCoordinate(payload, {0, 0, 0, 24, 1, 1, 0, 1, 0}, -60000, 90));
    QCOMPARE(decodeCoordinate(payload, {0, 0, 0, 24, 1, 1, 0, 1, 0}, 90), 0.0);
    // Too wide for 8 bits: the field is filled with ones.
    QVERIFY(!encodeCoordinate(payload, {0, 0, 8, 8, 1, 1, 0, 1, 0}, 300, 90));
    QCOMPARE(quint8(payload[1]), quint8(0xFF));
}

void TestSimCodecs::firmwareRecordByHand()
{
    // type 00, address 0, length 2, data 01 02: byte sum 5, checksum FB.
    const QByteArray text = "V0000000000020102FB";
    QCOMPARE(Firmware::encode({Firmware::Data, 0, QByteArray::fromHex("0102")}), text);
    const auto r = Firmware::decode(text);
    QVERIFY(r.has_value());
    QCOMPARE(r->type, int(Firmware::Data));
    QCOMPARE(r->address, 0u);
    QCOMPARE(r->data, QByteArray::fromHex("0102"));
    const auto end = Firmware::decode(Firmware::encode({Firmware::End, 0x12345678, {}}));
    QVERIFY(end.has_value());
    QCOMPARE(end->address, 0x12345678u);
}

void TestSimCodecs::corruptRecordsAreRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("flipped digit") << QByteArray("V0000000000020103FB");
    QTest::newRow("wrong checksum") << QByteArray("V0000000000020102FC");
    QTest::newRow("lower case") << QByteArray("V0000000000020102fb");
    QTest::newRow("no V") << QByteArray("0000000000020102FB");
    QTest::newRow("odd length") << QByteArray("V0000000000020102FB0");
    QTest::newRow("length says 3") << QByteArray("V0000000000030102FA");
    QTest::newRow("unknown type") << QByteArray("V0300000000020102F8");
    QTest::newRow("truncated") << QByteArray("V00000000");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("line feed in front") << QByteArray("\nV0000000000020102FB");
}

void TestSimCodecs::corruptRecordsAreRefused()
{
    QFETCH(QByteArray, text);
    QVERIFY(!Firmware::decode(text).has_value());
}

void TestSimCodecs::vanFileIsWellFormed()
{
    const QByteArray file = Firmware::vanFile(Model::Gnx234, "4.0.1", 10, 16);
    const QList<QByteArray> lines = file.split('\r');
    static const QRegularExpression header("^VANTOR GONIO_V(?<g>[0-9]+) FIRMWARE VERSION : (?<v>.+)$");
    const auto m = header.match(QString::fromUtf8(lines[0].trimmed()));
    QVERIFY(m.hasMatch());
    QCOMPARE(m.captured("g"), QString("2"));
    QCOMPARE(m.captured("v"), QString("4.0.1"));
    QCOMPARE(lines.size(), 1 + 1 + 10 + 1); // header, version, data, end
    QVERIFY(!file.endsWith('\r'));
    quint32 next = 0;
    for (int i = 1; i < lines.size(); ++i) {
        const auto r = Firmware::decode(lines[i]);
        QVERIFY2(r.has_value(), lines[i].constData());
        if (r->type != Firmware::Version) {
            QCOMPARE(r->address, next);
            next += quint32(r->data.size());
        }
    }
    QVERIFY(Firmware::vanFile(Model::Gnx134, "x").startsWith("VANTOR GONIO_V1 FIRMWARE VERSION : x\r"));
}

void TestSimCodecs::shippedFormatsFileMatchesTheEmulator()
{
    QFile file(QStringLiteral(GNXSIM_DATA_DIR "/format.vtl"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray shipped = file.readAll();
    QCOMPARE(shipped, PositionFormat::builtinsVtlFile());
    const QList<QByteArray> lines = shipped.trimmed().split('\n');
    QCOMPARE(lines[0].toInt(), lines.size() - 1);
    QString previous;
    for (int i = 1; i < lines.size(); ++i) {
        QVERIFY(lines[i].endsWith('#'));
        const QList<QByteArray> fields = lines[i].chopped(1).split(',');
        QCOMPARE(fields.size(), 31);
        QVERIFY(QString::fromUtf8(fields[0]) > previous); // name order
        previous = QString::fromUtf8(fields[0]);
        const int dataLen = fields[28].toInt();
        QVERIFY(dataLen >= 1 && dataLen <= 254); // the program refuses a slot outside 1..254
    }
}

QTEST_GUILESS_MAIN(TestSimCodecs)
#include "tst_simcodecs.moc"
