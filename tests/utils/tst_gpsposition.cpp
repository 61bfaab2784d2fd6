#include "utils/GpsFormat.h"

#include <QBuffer>
#include <QTest>

#include <cmath>
#include <limits>

using OrviaGonioManager::Utils::GpsCoordinate_t;
using OrviaGonioManager::Utils::GpsFormat;
using OrviaGonioManager::Utils::GpsFormat_t;

Q_DECLARE_METATYPE(GpsCoordinate_t)

namespace {

GpsCoordinate_t block(qint32 signPos, qint32 signLen, qint32 pos, qint32 len, qint32 T = 1, qint32 U = 1,
                      qint32 V = 0, qint32 W = 1, qint32 TY = 0)
{
    return GpsCoordinate_t{signPos, signLen, pos, len, T, U, V, W, TY};
}

void load(const QByteArray& text)
{
    QBuffer buffer;
    buffer.setData(text);
    buffer.open(QIODevice::ReadOnly);
    GpsFormat::instance()->readGpsFormats(buffer);
}

} // namespace

class TestGpsPosition : public QObject
{
    Q_OBJECT

private slots:
    void extractBits_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<quint32>("start");
        QTest::addColumn<quint32>("count");
        QTest::addColumn<quint32>("expected");

        QTest::newRow("24 bits") << QByteArray::fromHex("5265c0") << 0u << 24u << 0x5265c0u;
        QTest::newRow("first bit is the MSB") << QByteArray::fromHex("80") << 0u << 1u << 1u;
        QTest::newRow("last bit is the LSB") << QByteArray::fromHex("01") << 7u << 1u << 1u;
        QTest::newRow("across bytes") << QByteArray::fromHex("0ff0") << 4u << 8u << 0xffu;
        QTest::newRow("odd start and width") << QByteArray::fromHex("b6db") << 3u << 7u << 0x5bu;
        QTest::newRow("exactly to the end") << QByteArray::fromHex("00ff") << 8u << 8u << 0xffu;
        QTest::newRow("one bit beyond the end") << QByteArray::fromHex("00ff") << 9u << 8u << 0u;
        QTest::newRow("start beyond the end") << QByteArray::fromHex("ffff") << 16u << 1u << 0u;
        QTest::newRow("zero width") << QByteArray::fromHex("ff") << 0u << 0u << 0u;
        QTest::newRow("empty payload") << QByteArray() << 0u << 1u << 0u;
        QTest::newRow("32 bits") << QByteArray::fromHex("deadbeef") << 0u << 32u << 0xdeadbeefu;
        QTest::newRow("40 bits keep the last 32")
            << QByteArray::fromHex("0102030405") << 0u << 40u << 0x02030405u;
        QTest::newRow("33 bits keep the last 32")
            << QByteArray::fromHex("ffffffff80") << 1u << 33u << 0xfffffffeu;
        QTest::newRow("negative start wraps") << QByteArray::fromHex("ffff") << quint32(-4) << 8u << 0u;
        QTest::newRow("negative width wraps") << QByteArray::fromHex("ffff") << 0u << quint32(-1) << 0u;
        QTest::newRow("start plus width wraps to 0")
            << QByteArray::fromHex("ffff") << quint32(-8) << 8u << 0u;
    }

    void extractBits()
    {
        QFETCH(QByteArray, payload);
        QFETCH(quint32, start);
        QFETCH(quint32, count);
        QFETCH(quint32, expected);
        QCOMPARE(GpsFormat::extractBits(payload, start, count), expected);
    }

    void decodeCoordinate_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<GpsCoordinate_t>("coordinate");
        QTest::addColumn<quint32>("limit");
        QTest::addColumn<double>("expected");

        const QByteArray ninety = QByteArray::fromHex("5265c0");      // 5,400,000
        const QByteArray aboveNinety = QByteArray::fromHex("5265c1"); // 5,400,001
        const QByteArray above180 = QByteArray::fromHex("a4cb81");    // 10,800,001
        const double nan = std::numeric_limits<double>::quiet_NaN();
        const double inf = std::numeric_limits<double>::infinity();

        QTest::newRow("90 degrees") << ninety << block(0, 0, 0, 24) << 90u << 90.0;
        QTest::newRow("TY folds above the range")
            << aboveNinety << block(0, 0, 0, 24, 1, 1, 0, 1, 1) << 90u << (5400001.0 - 10800000.0) / 60000.0;
        QTest::newRow("TY keeps the bound") << ninety << block(0, 0, 0, 24, 1, 1, 0, 1, 1) << 90u << 90.0;
        QTest::newRow("no TY, no fold") << aboveNinety << block(0, 0, 0, 24) << 90u << 5400001.0 / 60000.0;
        QTest::newRow("TY longitude folds")
            << above180 << block(0, 0, 0, 24, 1, 1, 0, 1, 2) << 180u << (10800001.0 - 21600000.0) / 60000.0;
        QTest::newRow("TY longitude range is 180")
            << aboveNinety << block(0, 0, 0, 24, 1, 1, 0, 1, 1) << 180u << 5400001.0 / 60000.0;
        QTest::newRow("sign bit set") << QByteArray::fromHex("80ea60") << block(0, 1, 8, 16) << 90u << -1.0;
        QTest::newRow("sign bit clear") << QByteArray::fromHex("00ea60") << block(0, 1, 8, 16) << 90u << 1.0;
        QTest::newRow("sign beyond the payload")
            << QByteArray::fromHex("ea60") << block(16, 1, 0, 16) << 90u << 1.0;
        QTest::newRow("sign straddling the end")
            << QByteArray::fromHex("ea60") << block(15, 2, 0, 16) << 90u << 1.0;
        QTest::newRow("value beyond the payload gives V/W")
            << QByteArray::fromHex("ff") << block(0, 0, 8, 8, 1, 1, 120000, 1) << 90u << 2.0;
        QTest::newRow("value beyond, V 0") << QByteArray::fromHex("ff") << block(0, 0, 4, 8) << 90u << 0.0;
        QTest::newRow("sign 11 multiplies by -5")
            << QByteArray::fromHex("c00c") << block(0, 2, 8, 8, 5000, 1) << 90u << -5.0;
        QTest::newRow("sign 10 multiplies by -3")
            << QByteArray::fromHex("800c") << block(0, 2, 8, 8, 5000, 1) << 90u << -3.0;
        QTest::newRow("T/U scales") << QByteArray::fromHex("ea60") << block(0, 0, 0, 16, 3, 2) << 90u << 1.5;
        QTest::newRow("V/W adds after scaling")
            << QByteArray::fromHex("ea60") << block(0, 0, 0, 16, 2, 1, -30000, 1) << 90u << 1.5;
        QTest::newRow("fold applies after V/W")
            << ninety << block(0, 0, 0, 24, 1, 1, 1, 1, 1) << 90u << (5400001.0 - 10800000.0) / 60000.0;
        QTest::newRow("W 0, V 0 gives NaN") << ninety << block(0, 0, 0, 24, 1, 1, 0, 0) << 90u << nan;
        QTest::newRow("W 0, V 1 gives infinity") << ninety << block(0, 0, 0, 24, 1, 1, 1, 0) << 90u << inf;
        QTest::newRow("U 0, no value gives NaN") << QByteArray() << block(0, 0, 0, 24, 0, 0) << 90u << nan;
        QTest::newRow("negative positions read nothing")
            << ninety << block(-8, 8, -8, 16, 1, 1, 60000, 1) << 90u << 1.0;
    }

    void decodeCoordinate()
    {
        QFETCH(QByteArray, payload);
        QFETCH(GpsCoordinate_t, coordinate);
        QFETCH(quint32, limit);
        QFETCH(double, expected);
        const double result = GpsFormat::decodeCoordinate(payload, coordinate, limit);
        if (std::isnan(expected)) {
            QVERIFY(std::isnan(result));
            QCOMPARE(QString::number(result, 'g', 6), QString("nan"));
        } else {
            QCOMPARE(result, expected);
        }
    }

    void decodePosition()
    {
        GpsFormat* gps = GpsFormat::instance();
        double latitude = 12.5;
        double longitude = -7.25;
        load("0\n");
        QVERIFY(!gps->decodePosition("Pos", QByteArray::fromHex("5265c0"), latitude, longitude));

        // Latitude: bits 0..23; longitude: sign at bit 24, value at bits 25..48.
        load("1\nPos,,,,8,0,0,0,24,1,1,0,1,0,24,1,25,24,1,1,0,1,0,0,0,0,0,0,0,0,0#\n");
        QVERIFY(!gps->decodePosition("", QByteArray::fromHex("5265c0"), latitude, longitude));
        QVERIFY(!gps->decodePosition("pos", QByteArray::fromHex("5265c0"), latitude, longitude));
        QCOMPARE(latitude, 12.5);
        QCOMPARE(longitude, -7.25);

        // 5,400,000 then sign 1 and 3,000,000 (0x2dc6c0) left-aligned in the following 25 bits.
        const QByteArray payload = QByteArray::fromHex("5265c0") + QByteArray::fromHex("96e36000");
        QVERIFY(gps->decodePosition("Pos", payload, latitude, longitude));
        QCOMPARE(latitude, 90.0);
        QCOMPARE(longitude, -50.0);

        // A payload too short for the longitude leaves it at V/W.
        QVERIFY(gps->decodePosition("Pos", QByteArray::fromHex("5265c0"), latitude, longitude));
        QCOMPARE(latitude, 90.0);
        QCOMPARE(longitude, 0.0);
    }
};

QTEST_GUILESS_MAIN(TestGpsPosition)
#include "tst_gpsposition.moc"
