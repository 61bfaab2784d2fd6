// Flash records of both generations, checked bit by bit against headers packed by hand.
#include "sim/Device.h"
#include "sim/FlashLayout.h"

#include <QTest>

using namespace gnxsim;

Q_DECLARE_METATYPE(gnxsim::RxReport)

namespace {

RxReport report(int flags, const QDateTime& t, quint32 frequency, int direction, int c, qint32 level,
                quint32 period, qint32 lat, qint32 lon, int g, int payloadBytes)
{
    RxReport r;
    r.flags = flags;
    r.time = t;
    r.frequency = frequency;
    r.direction = direction;
    r.v1FlashValue = c;
    r.level = level;
    r.period = period;
    r.latitude = lat;
    r.longitude = lon;
    r.gnxDirection = g;
    r.payload = QByteArray(payloadBytes, '\0');
    for (int i = 0; i < payloadBytes; ++i)
        r.payload[i] = char(0x11 * (i % 15 + 1));
    return r;
}

QDateTime utc(int y, int mo, int d, int h, int mi, int s)
{
    return QDateTime(QDate(y, mo, d), QTime(h, mi, s), Qt::UTC);
}

// Reads a field of the header the way the program's decoder does: LSB first, sign bit after the value.
qint64 field(const QByteArray& h, int first, int width, bool hasSign = false)
{
    quint64 v = 0;
    for (int i = 0; i < width; ++i) {
        const int k = first + i;
        v |= quint64((quint8(h[k / 8]) >> (k % 8)) & 1) << i;
    }
    qint64 value = qint64(v);
    if (hasSign && ((quint8(h[(first + width) / 8]) >> ((first + width) % 8)) & 1))
        value -= qint64(1) << width;
    return value;
}

} // namespace

class TestSimFlash : public QObject
{
    Q_OBJECT

private slots:
    void gnx134Headers_data();
    void gnx134Headers();
    void gnx134PayloadIsPaddedToWholeWords_data();
    void gnx134PayloadIsPaddedToWholeWords();
    void gnx234Headers_data();
    void gnx234Headers();
    void gnx234OutOfRangeValuesAreClamped();
    void gnx234DumpEndsWithTheEndMark();
    void gnx134RecordsOnlyFavouritesPerPlatform();
};

void TestSimFlash::gnx134Headers_data()
{
    QTest::addColumn<RxReport>("r");
    QTest::addColumn<QByteArray>("header");
    QTest::newRow("every field at its maximum")
        << report(3, utc(2127, 12, 31, 23, 59, 59), (1u << 29) - 1, 511, 511, 511, 65535, (1 << 24) - 1,
                  (1 << 23) - 1, 511, 32)
        << QByteArray("0377DF3FFFFFFFFFFFFFFFFFFDFFFFFFFFFBFFFFFBEF");
    QTest::newRow("every field at its minimum")
        << report(0, utc(2000, 1, 1, 0, 0, 0), 0, 0, 0, -512, 0, -16777216, -8388608, 0, 4)
        << QByteArray("00000042000000000000000002000000000400000400");
    QTest::newRow("negative latitude and longitude")
        << report(1, utc(2024, 2, 29, 13, 45, 7), 401650123, 275, 270, -118, 120, -2700000, -90000, 42, 5)
        << QByteArray("01AD3DBA609663E1EF44878AE30180345B8703F55721");
}

void TestSimFlash::gnx134Headers()
{
    QFETCH(RxReport, r);
    QFETCH(QByteArray, header);
    const QByteArray record = FlashLayout::gnx134Record(r);
    QCOMPARE(record.left(22).toHex().toUpper(), header);
    // The program's reading of the same bits gives the values back.
    const QByteArray h = record.left(22);
    QCOMPARE(field(h, 0, 1), qint64(r.flags & 1));
    QCOMPARE(field(h, 1, 1), qint64((r.flags >> 1) & 1));
    QCOMPARE(field(h, 34, 7) + 2000, qint64(r.time.date().year()));
    QCOMPARE(field(h, 41, 29), qint64(r.frequency));
    QCOMPARE(field(h, 88, 9, true), qint64(r.level));
    QCOMPARE(field(h, 114, 24, true), qint64(r.latitude));
    QCOMPARE(field(h, 139, 23, true), qint64(r.longitude));
    QCOMPARE(record.size(), 22 + (field(h, 173, 3) + 1) * 4);
}

void TestSimFlash::gnx134PayloadIsPaddedToWholeWords_data()
{
    QTest::addColumn<int>("payloadBytes");
    QTest::addColumn<int>("code");
    QTest::newRow("1 byte") << 1 << 0;
    QTest::newRow("4 bytes") << 4 << 0;
    QTest::newRow("5 bytes") << 5 << 1;
    QTest::newRow("32 bytes") << 32 << 7;
    QTest::newRow("40 bytes are cut") << 40 << 7;
}

void TestSimFlash::gnx134PayloadIsPaddedToWholeWords()
{
    QFETCH(int, payloadBytes);
    QFETCH(int, code);
    const RxReport r = report(0, utc(2024, 1, 1, 0, 0, 0), 0, 0, 0, 0, 0, 0, 0, 0, payloadBytes);
    const QByteArray record = FlashLayout::gnx134Record(r);
    QCOMPARE(field(record, 173, 3), qint64(code));
    QCOMPARE(record.size(), 22 + (code + 1) * 4);
    const QByteArray payload = record.mid(22);
    QCOMPARE(payload.left(qMin(payloadBytes, 32)), r.payload.left(32));
    QCOMPARE(payload.mid(payloadBytes), QByteArray(qMax(0, payload.size() - payloadBytes), '\0'));
}

void TestSimFlash::gnx234Headers_data()
{
    QTest::addColumn<RxReport>("r");
    QTest::addColumn<QByteArray>("header");
    RxReport max = report(7, utc(2127, 12, 31, 23, 59, 59), (1u << 29) - 1, 511, 0, 511, 65535, (1 << 24) - 1,
                          (1 << 23) - 1, 511, 63);
    max.band = 15;
    max.platformId = "FFFFFFF";
    max.extraCode = 7;
    QTest::newRow("every field at its maximum")
        << max << QByteArray("7FFFFFFF0F77DF3FFFFFFFFFFFFFFFFEFFFFFFFFFDFFFFFD3F7E");
    RxReport min = report(0, utc(2000, 1, 1, 0, 0, 0), 0, 0, 0, -512, 0, -16777216, -8388608, 0, 1);
    min.platformId = "00000";
    QTest::newRow("every field at its minimum")
        << min << QByteArray("0000000000000042000000000000000100000000020000020002");
    RxReport typical =
        report(3, utc(2024, 2, 29, 13, 45, 7), 401312500, 90, 0, -121, 0, -2700000, 60000, 300, 5);
    typical.band = 4;
    typical.platformId = "12345";
    typical.extraCode = 2;
    QTest::newRow("negative latitude, 20-bit identifier")
        << typical << QByteArray("3445230100AD3DBA60E815D7AF96C30100409AAD83A903B0140A");
}

void TestSimFlash::gnx234Headers()
{
    QFETCH(RxReport, r);
    QFETCH(QByteArray, header);
    const QByteArray record = FlashLayout::gnx234Record(r);
    QCOMPARE(record.left(26).toHex().toUpper(), header);
    QCOMPARE(field(record, 7, 1), qint64(0)); // never the end mark
    const int payloadBytes = int((field(record, 198, 9) + 7) / 8);
    QCOMPARE(payloadBytes, int(r.payload.size()));
    QCOMPARE(record.size(), 26 + payloadBytes + 1);
    QCOMPARE(record.mid(26, payloadBytes), r.payload);
    QCOMPARE(field(record, 137, 24, true), qint64(r.latitude));
    QCOMPARE(field(record, 162, 23, true), qint64(r.longitude));
}

void TestSimFlash::gnx234OutOfRangeValuesAreClamped()
{
    RxReport r = report(0, utc(2024, 1, 1, 0, 0, 0), 0, 0, 0, -900, 0, 0, -9000000, 0, 70);
    r.platformId = "12345";
    const QByteArray record = FlashLayout::gnx234Record(r);
    QCOMPARE(field(record, 111, 9, true), qint64(-512));
    QCOMPARE(field(record, 162, 23, true), qint64(-8388608));
    QCOMPARE(field(record, 198, 9), qint64(63 * 8)); // payload cut to what 9 bits can say
    QCOMPARE(record.size(), 26 + 63 + 1);
}

void TestSimFlash::gnx234DumpEndsWithTheEndMark()
{
    Options o;
    o.model = Model::Gnx234;
    o.platforms = 6;
    o.flashRecords = 25;
    Device device(o);
    QCOMPARE(device.flashRecordCount(), 25);
    const QByteArray records = device.flashBytes();
    const QByteArray memory = device.readFlash(0, records.size() + 300);
    QCOMPARE(memory.left(records.size()), records);
    QCOMPARE(quint8(memory[records.size()]), quint8(0xFF));
    // Walk the dump as the program's decoder does.
    int offset = 0, count = 0;
    while (offset < records.size()) {
        QVERIFY(!(quint8(memory[offset]) & 0x80));
        const int payloadBytes = int((field(memory.mid(offset, 26), 198, 9) + 7) / 8);
        offset += 26 + payloadBytes + 1;
        QVERIFY(offset < memory.size()); // at least one byte after every record
        ++count;
    }
    QCOMPARE(offset, int(records.size()));
    QCOMPARE(count, 25);
}

void TestSimFlash::gnx134RecordsOnlyFavouritesPerPlatform()
{
    Options o;
    o.model = Model::Gnx134;
    o.platforms = 3;
    o.flashRecords = 30;
    Device device(o);
    QCOMPARE(device.flashRecordCount(), 30);
    int total = 0;
    for (int i = 0; i < 3; ++i) {
        const QByteArray dump = device.platformFlashBytes(i);
        int offset = 0, count = 0;
        while (offset < dump.size()) {
            offset += 22 + int(field(dump.mid(offset, 22), 173, 3) + 1) * 4;
            ++count;
        }
        QCOMPARE(offset, int(dump.size()));
        QCOMPARE(count, 10);
        total += dump.size();
    }
    QCOMPARE(device.platformFlashBytes(3), QByteArray());
    QCOMPARE(int(device.flashBytes().size()), total);

    Options none = o;
    none.platforms = 0;
    QCOMPARE(Device(none).flashRecordCount(), 0);
}

QTEST_GUILESS_MAIN(TestSimFlash)
#include "tst_simflash.moc"
