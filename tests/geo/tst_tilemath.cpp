// Web Mercator tiles against published coordinates and PROJ (gdaltransform), round trips, the
// antimeridian, the poles and tile counts.
#include "geo/TileMath.h"

#include <QSet>
#include <QTest>

#include <algorithm>
#include <cmath>

using namespace OrviaGonioManager::Geo;

namespace {

struct Box
{
    double south, west, north, east;
};

// Whether the tile and the box share some area; a box across the antimeridian is two boxes.
bool overlaps(const TileId& t, const Box& b)
{
    const GeoPoint nw = TileMath::tileNorthWest(t);
    const GeoPoint se = TileMath::tileNorthWest({t.z, t.x + 1, t.y + 1});
    const auto inLongitudes = [&](double w, double e) { return w < se.longitude && e > nw.longitude; };
    return b.south < nw.latitude && b.north > se.latitude &&
           (b.west <= b.east ? inLongitudes(b.west, b.east)
                             : inLongitudes(b.west, 180.0) || inLongitudes(-180.0, b.east));
}

QString name(const TileId& t)
{
    return QStringLiteral("%1/%2/%3").arg(t.z).arg(t.x).arg(t.y);
}

} // namespace

Q_DECLARE_METATYPE(Box)

class TstTileMath : public QObject
{
    Q_OBJECT

private slots:
    void tileAt_data();
    void tileAt();
    void beyondMaxLatitude_data();
    void beyondMaxLatitude();
    void antimeridian_data();
    void antimeridian();
    void tilesCovering_data();
    void tilesCovering();
    void tileCount();
    void metresPerPixel();
};

// Chicago at zoom 3 and London at zoom 7 are the published examples of Google's tile coordinates
// and of the OSM wiki's tile URL; the other rows are from PROJ's EPSG:3857 (gdaltransform). A
// zoom 30 tile holds its zoom 16 and 18 tiles in its leading bits, so those need no rows.
void TstTileMath::tileAt_data()
{
    QTest::addColumn<double>("latitude");
    QTest::addColumn<double>("longitude");
    QTest::addColumn<int>("z");
    QTest::addColumn<QString>("tile");
    QTest::newRow("Chicago z3") << 41.85 << -87.65 << 3 << "3/2/2";
    QTest::newRow("London z7") << 51.5072 << -0.1276 << 7 << "7/63/42";
    QTest::newRow("Ushuaia z18") << -54.8 << -68.3 << 18 << "18/81337/178975";
    QTest::newRow("Sydney z30") << -33.8688 << 151.2093 << 30 << "30/987870216/644344148";
    QTest::newRow("null island z1") << 0.0 << 0.0 << 1 << "1/1/1";
    QTest::newRow("Fiji east of 180") << -17.8 << 179.99 << 16 << "16/65534/36061";
    QTest::newRow("Fiji west of 180 z30") << -17.8 << -179.99 << 30 << "30/29826/590836687";
    QTest::newRow("zoom 40 held to 30") << 43.59 << 1.23 << 40 << "30/540539529/392127856";
}

void TstTileMath::tileAt()
{
    QFETCH(double, latitude);
    QFETCH(double, longitude);
    QFETCH(int, z);
    QFETCH(QString, tile);
    const TileId t = TileMath::tileAt({latitude, longitude}, z);
    QCOMPARE(name(t), tile);
    // The point lies in the tile, between its north-west corner and the next tile's.
    const GeoPoint nw = TileMath::tileNorthWest(t);
    const GeoPoint se = TileMath::tileNorthWest({t.z, t.x + 1, t.y + 1});
    QVERIFY(nw.latitude >= latitude && latitude > se.latitude);
    QVERIFY(nw.longitude <= longitude && longitude < se.longitude);
    // Back from its pixel, also at a fractional zoom.
    const double zoom = t.z - 0.5;
    const GeoPoint back = TileMath::fromWorldPixel(TileMath::worldPixel({latitude, longitude}, zoom), zoom);
    QVERIFY2(
        std::abs(back.latitude - latitude) < 1e-9 && std::abs(back.longitude - longitude) < 1e-9,
        qPrintable(QStringLiteral("%1 %2").arg(back.latitude, 0, 'f', 12).arg(back.longitude, 0, 'f', 12)));
}

// Beyond ±85.05 (up to the poles and past them) a point is on the world's edge, finite.
void TstTileMath::beyondMaxLatitude_data()
{
    QTest::addColumn<double>("latitude");
    QTest::newRow("85.06") << 85.06;
    QTest::newRow("north pole") << 90.0;
    QTest::newRow("beyond the pole") << 95.0;
    QTest::newRow("-85.06") << -85.06;
    QTest::newRow("south pole") << -90.0;
}

void TstTileMath::beyondMaxLatitude()
{
    QFETCH(double, latitude);
    const bool north = latitude > 0;
    for (int z : {0, 18, 30}) {
        const QPointF px = TileMath::worldPixel({latitude, 10.0}, z);
        QCOMPARE(px.y(), north ? 0.0 : 256.0 * std::exp2(z));
        QCOMPARE(TileMath::tileAt({latitude, 10.0}, z).y, north ? 0 : (1 << z) - 1);
        QVERIFY(std::abs(TileMath::fromWorldPixel(px, z).latitude -
                         std::copysign(TileMath::kMaxLatitude, latitude)) < 1e-9);
    }
    // Pixels above or below the world come back on its edge.
    QCOMPARE(TileMath::fromWorldPixel({5, north ? -1e6 : 1e6}, 3).latitude,
             TileMath::fromWorldPixel({5, north ? 0.0 : 2048.0}, 3).latitude);
}

void TstTileMath::antimeridian_data()
{
    QTest::addColumn<double>("longitude");
    QTest::addColumn<double>("x");
    QTest::newRow("180 is the west edge") << 180.0 << 0.0;
    QTest::newRow("540") << 540.0 << 0.0;
    QTest::newRow("-190 is 170") << -190.0 << (350.0 / 360.0) * 1024;
    QTest::newRow("just west of 180") << 179.999999 << (359.999999 / 360.0) * 1024;
}

void TstTileMath::antimeridian()
{
    QFETCH(double, longitude);
    QFETCH(double, x);
    const QPointF px = TileMath::worldPixel({10.0, longitude}, 2);
    QVERIFY2(std::abs(px.x() - x) < 1e-6, qPrintable(QString::number(px.x(), 'f', 9)));
    QCOMPARE(TileMath::tileAt({10.0, longitude}, 2).x, int(x / 256));
}

void TstTileMath::tilesCovering_data()
{
    QTest::addColumn<Box>("box");
    QTest::addColumn<int>("z");
    QTest::addColumn<int>("count");
    QTest::addColumn<QString>("ends"); // the first and last tiles listed
    QTest::newRow("south and north swapped") << Box{90, -180, -90, 180} << 2 << 16 << "2/0/0 2/3/3";
    QTest::newRow("Toulouse z14") << Box{43.5, 1.3, 43.7, 1.6} << 14 << 14 * 14
                                  << "14/8251/5976 14/8264/5989";
    QTest::newRow("point") << Box{43.59, 1.23, 43.59, 1.23} << 16 << 1 << "16/32991/23933 16/32991/23933";
    QTest::newRow("edges on tile boundaries") << Box{0, 0, 60, 180} << 1 << 1 << "1/1/0 1/1/0";
    QTest::newRow("across 180 z8") << Box{-20, 179, -15, -179} << 8 << 2 * 5 << "8/255/138 8/0/142";
    QTest::newRow("across 180, nearly all the world") << Box{0, 10, 10, 5} << 3 << 8 << "3/0/3 3/7/3";
    QTest::newRow("Arctic above 85.05") << Box{80, -10, 90, 10} << 4 << 2 * 2 << "4/7/0 4/8/1";
    QTest::newRow("Antarctic below -85.05") << Box{-90, -10, -86, 10} << 4 << 2 << "4/7/15 4/8/15";
    QTest::newRow("NaN") << Box{qQNaN(), 0, 10, 10} << 3 << 0 << "";
}

void TstTileMath::tilesCovering()
{
    QFETCH(Box, box);
    QFETCH(int, z);
    QFETCH(int, count);
    QFETCH(QString, ends);
    const auto tiles = TileMath::tilesCovering(box.south, box.west, box.north, box.east, z);
    QCOMPARE(int(tiles.size()), count);
    QCOMPARE(TileMath::tileCount(box.south, box.west, box.north, box.east, z, z), qint64(count));
    if (count == 0)
        return;
    QCOMPARE(name(tiles.front()) + ' ' + name(tiles.back()), ends);
    const QSet<TileId> seen(tiles.begin(), tiles.end());
    QCOMPARE(int(seen.size()), count);
    // At low zooms, against every tile of the world: a box with an area has exactly the tiles
    // that share some of it.
    const double lat = TileMath::kMaxLatitude;
    const Box ordered{std::clamp(std::min(box.south, box.north), -lat, lat), box.west,
                      std::clamp(std::max(box.south, box.north), -lat, lat), box.east};
    if (z > 8 || ordered.south >= ordered.north || box.west == box.east)
        return;
    for (int x = 0; x < (1 << z); ++x)
        for (int y = 0; y < (1 << z); ++y)
            QVERIFY2(seen.contains({z, x, y}) == overlaps({z, x, y}, ordered), qPrintable(name({z, x, y})));
}

// Counted without listing: what tilesCovering lists, and no overflow at zoom 30.
void TstTileMath::tileCount()
{
    qint64 listed = 0;
    for (int z = 10; z <= 14; ++z)
        listed += qint64(TileMath::tilesCovering(43.5, 1.3, 43.7, 1.6, z).size());
    QCOMPARE(TileMath::tileCount(43.5, 1.3, 43.7, 1.6, 10, 14), listed);
    QCOMPARE(TileMath::tileCount(-90, -180, 90, 180, 0, 30), qint64(1537228672809129301)); // (4^31 - 1) / 3
    QCOMPARE(TileMath::tileCount(-90, -180, 90, 180, 4, 2), qint64(0));
}

// The figure every tile server publishes, and against the geodesic one pixel long elsewhere.
void TstTileMath::metresPerPixel()
{
    QVERIFY(std::abs(TileMath::metresPerPixel(0.0, 0.0) - 156543.03) < 0.01);
    for (const auto& [latitude, zoom] : {std::pair{43.59, 15.0}, {-60.0, 12.5}, {80.0, 20.0}}) {
        const double m = TileMath::metresPerPixel(latitude, zoom);
        const QPointF px = TileMath::worldPixel({latitude, 3.0}, 24.0);
        const double expected = Geodesy::distance(TileMath::fromWorldPixel(px, 24.0),
                                                  TileMath::fromWorldPixel(px + QPointF(1, 0), 24.0)) *
                                std::exp2(24.0 - zoom);
        QVERIFY2(std::abs(m - expected) < 1e-6 * expected,
                 qPrintable(QStringLiteral("%1 %2").arg(m).arg(expected)));
    }
}

QTEST_GUILESS_MAIN(TstTileMath)
#include "tst_tilemath.moc"
