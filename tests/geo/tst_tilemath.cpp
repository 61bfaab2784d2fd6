// Web Mercator tiles against published coordinates and PROJ (gdaltransform), round trips, the
// antimeridian, the poles and the highest zooms.
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
    if (!(b.south < nw.latitude && b.north > se.latitude))
        return false;
    const auto inLongitudes = [&](double w, double e) { return w < se.longitude && e > nw.longitude; };
    return b.west <= b.east ? inLongitudes(b.west, b.east)
                            : inLongitudes(b.west, 180.0) || inLongitudes(-180.0, b.east);
}

} // namespace

Q_DECLARE_METATYPE(Box)

class TstTileMath : public QObject
{
    Q_OBJECT

private slots:
    void tileAt_data();
    void tileAt();
    void worldPixelOfPublishedExample();
    void tileNorthWest_data();
    void tileNorthWest();
    void roundTrip_data();
    void roundTrip();
    void beyondMaxLatitude_data();
    void beyondMaxLatitude();
    void antimeridian_data();
    void antimeridian();
    void tilesCovering_data();
    void tilesCovering();
    void tileCountWithoutListing_data();
    void tileCountWithoutListing();
    void metresPerPixel_data();
    void metresPerPixel();
};

// Rows from PROJ's EPSG:3857 (gdaltransform); Chicago at zoom 3 and London at zoom 7 are also the
// published examples of Google's tile coordinates and of the OSM wiki's tile URL.
void TstTileMath::tileAt_data()
{
    QTest::addColumn<double>("latitude");
    QTest::addColumn<double>("longitude");
    QTest::addColumn<int>("z");
    QTest::addColumn<int>("x");
    QTest::addColumn<int>("y");
    QTest::newRow("Chicago z3") << 41.85 << -87.65 << 3 << 2 << 2;
    QTest::newRow("Chicago z10") << 41.85 << -87.65 << 10 << 262 << 380;
    QTest::newRow("London z7") << 51.5072 << -0.1276 << 7 << 63 << 42;
    QTest::newRow("London z16") << 51.5072 << -0.1276 << 16 << 32744 << 21792;
    QTest::newRow("Toulouse z10") << 43.59 << 1.23 << 10 << 515 << 373;
    QTest::newRow("Toulouse z18") << 43.59 << 1.23 << 18 << 131967 << 95734;
    QTest::newRow("Sydney z7") << -33.8688 << 151.2093 << 7 << 117 << 76;
    QTest::newRow("Sydney z16") << -33.8688 << 151.2093 << 16 << 60294 << 39327;
    QTest::newRow("Honolulu z10") << 21.3069 << -157.8583 << 10 << 62 << 449;
    QTest::newRow("Ushuaia z18") << -54.8 << -68.3 << 18 << 81337 << 178975;
    QTest::newRow("Auckland z22") << -36.8485 << 174.7633 << 22 << 4133292 << 2559546;
    QTest::newRow("Chicago z22") << 41.85 << -87.65 << 22 << 1075955 << 1559345;
    QTest::newRow("Toulouse z30") << 43.59 << 1.23 << 30 << 540539529 << 392127856;
    QTest::newRow("Sydney z30") << -33.8688 << 151.2093 << 30 << 987870216 << 644344148;
    QTest::newRow("null island z0") << 0.0 << 0.0 << 0 << 0 << 0;
    QTest::newRow("null island z1 (south-east tile)") << 0.0 << 0.0 << 1 << 1 << 1;
    QTest::newRow("Fiji east of 180 z16") << -17.8 << 179.99 << 16 << 65534 << 36061;
    QTest::newRow("Fiji west of 180 z16") << -17.8 << -179.99 << 16 << 1 << 36061;
    QTest::newRow("Fiji west of 180 z30") << -17.8 << -179.99 << 30 << 29826 << 590836687;
    QTest::newRow("zoom above 30 held to 30") << 43.59 << 1.23 << 40 << 540539529 << 392127856;
}

void TstTileMath::tileAt()
{
    QFETCH(double, latitude);
    QFETCH(double, longitude);
    QFETCH(int, z);
    QFETCH(int, x);
    QFETCH(int, y);
    const TileId t = TileMath::tileAt({latitude, longitude}, z);
    QCOMPARE(t.z, std::min(z, TileMath::kMaxZoom));
    QCOMPARE(t.x, x);
    QCOMPARE(t.y, y);
    QVERIFY(TileMath::isValid(t));
    // The point lies in the tile whose corner is its north-west.
    const GeoPoint nw = TileMath::tileNorthWest(t);
    const GeoPoint se = TileMath::tileNorthWest({t.z, t.x + 1, t.y + 1});
    QVERIFY(nw.latitude >= latitude && latitude > se.latitude);
    QVERIFY(nw.longitude <= longitude && longitude < se.longitude);
}

// Google's "world coordinate" of Chicago: (65.67111111, 95.17492654) at zoom 0.
void TstTileMath::worldPixelOfPublishedExample()
{
    const QPointF p0 = TileMath::worldPixel({41.85, -87.65}, 0);
    QVERIFY(std::abs(p0.x() - 65.67111111) < 1e-8);
    QVERIFY(std::abs(p0.y() - 95.17492654) < 1e-8);
    const QPointF p3 = TileMath::worldPixel({41.85, -87.65}, 3);
    QCOMPARE(int(p3.x()), 525);
    QCOMPARE(int(p3.y()), 761);
    // A fractional zoom scales between the two.
    const QPointF half = TileMath::worldPixel({41.85, -87.65}, 0.5);
    QVERIFY(std::abs(half.x() - p0.x() * std::sqrt(2.0)) < 1e-9);
}

void TstTileMath::tileNorthWest_data()
{
    QTest::addColumn<int>("z");
    QTest::addColumn<int>("x");
    QTest::addColumn<int>("y");
    QTest::addColumn<double>("latitude");
    QTest::addColumn<double>("longitude");
    QTest::newRow("world") << 0 << 0 << 0 << 85.051128779807 << -180.0;
    QTest::newRow("z1 south-east") << 1 << 1 << 1 << 0.0 << 0.0;
    QTest::newRow("London z7") << 7 << 63 << 42 << 52.482780222078 << -2.8125;
    QTest::newRow("Toulouse z10") << 10 << 515 << 373 << 43.834526782237 << 1.0546875;
    QTest::newRow("Toulouse z18") << 18 << 131967 << 95734 << 43.590338261468 << 1.229095458984;
    QTest::newRow("world's south-east edge") << 2 << 4 << 4 << -85.051128779807 << 180.0;
}

void TstTileMath::tileNorthWest()
{
    QFETCH(int, z);
    QFETCH(int, x);
    QFETCH(int, y);
    QFETCH(double, latitude);
    QFETCH(double, longitude);
    const GeoPoint p = TileMath::tileNorthWest({z, x, y});
    QVERIFY2(std::abs(p.latitude - latitude) < 1e-9, qPrintable(QString::number(p.latitude, 'f', 12)));
    QVERIFY2(std::abs(p.longitude - longitude) < 1e-9, qPrintable(QString::number(p.longitude, 'f', 12)));
}

void TstTileMath::roundTrip_data()
{
    QTest::addColumn<double>("latitude");
    QTest::addColumn<double>("longitude");
    QTest::addColumn<double>("zoom");
    QTest::newRow("Toulouse z0") << 43.59 << 1.23 << 0.0;
    QTest::newRow("Toulouse z12.7") << 43.59 << 1.23 << 12.7;
    QTest::newRow("Sydney z18") << -33.8688 << 151.2093 << 18.0;
    QTest::newRow("Ushuaia z22") << -54.8 << -68.3 << 22.0;
    QTest::newRow("Svalbard z25.5") << 78.22 << 15.65 << 25.5;
    QTest::newRow("Chicago z30") << 41.85 << -87.65 << 30.0;
    QTest::newRow("near 180 z30") << -17.8 << 179.9999999 << 30.0;
    QTest::newRow("near -180 z30") << -17.8 << -179.9999999 << 30.0;
    QTest::newRow("near the top edge z20") << 85.05 << 0.0 << 20.0;
    QTest::newRow("near the bottom edge z20") << -85.05 << 0.0 << 20.0;
}

void TstTileMath::roundTrip()
{
    QFETCH(double, latitude);
    QFETCH(double, longitude);
    QFETCH(double, zoom);
    const QPointF px = TileMath::worldPixel({latitude, longitude}, zoom);
    const double size = 256.0 * std::exp2(zoom);
    QVERIFY(px.x() >= 0 && px.x() < size);
    QVERIFY(px.y() >= 0 && px.y() <= size);
    const GeoPoint back = TileMath::fromWorldPixel(px, zoom);
    QVERIFY2(std::abs(back.latitude - latitude) < 1e-9, qPrintable(QString::number(back.latitude, 'f', 12)));
    QVERIFY2(std::abs(back.longitude - longitude) < 1e-9,
             qPrintable(QString::number(back.longitude, 'f', 12)));
    // A pixel to the east and back: the same pixel, also across the world's edge.
    const QPointF east = TileMath::worldPixel(TileMath::fromWorldPixel(px + QPointF(1, 0), zoom), zoom);
    const double dx = std::fmod(east.x() - px.x() + size, size);
    QVERIFY2(std::abs(dx - 1.0) < 1e-3, qPrintable(QString::number(dx, 'f', 6)));
}

void TstTileMath::beyondMaxLatitude_data()
{
    QTest::addColumn<double>("latitude");
    QTest::addColumn<bool>("north");
    QTest::newRow("max") << TileMath::kMaxLatitude << true;
    QTest::newRow("85.06") << 85.06 << true;
    QTest::newRow("89.9") << 89.9 << true;
    QTest::newRow("north pole") << 90.0 << true;
    QTest::newRow("beyond the pole") << 95.0 << true;
    QTest::newRow("-85.06") << -85.06 << false;
    QTest::newRow("south pole") << -90.0 << false;
}

void TstTileMath::beyondMaxLatitude()
{
    QFETCH(double, latitude);
    QFETCH(bool, north);
    for (int z : {0, 5, 18, 30}) {
        const QPointF px = TileMath::worldPixel({latitude, 10.0}, z);
        QVERIFY(std::isfinite(px.y()));
        const double size = 256.0 * std::exp2(z);
        const double edge = north ? 0.0 : size;
        // kMaxLatitude's ten decimals fall short of the edge by 2e-13 of the world.
        QVERIFY2(std::abs(px.y() - edge) < 1e-12 * size, qPrintable(QString::number(px.y())));
        if (std::abs(latitude) > TileMath::kMaxLatitude + 1e-9)
            QCOMPARE(px.y(), edge);
        const TileId t = TileMath::tileAt({latitude, 10.0}, z);
        QCOMPARE(t.y, north ? 0 : (1 << z) - 1);
        const double back = TileMath::fromWorldPixel(px, z).latitude;
        QVERIFY(std::abs(std::abs(back) - TileMath::kMaxLatitude) < 1e-9);
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
    QTest::newRow("-180") << -180.0 << 0.0;
    QTest::newRow("540") << 540.0 << 0.0;
    QTest::newRow("-190 is 170") << -190.0 << (350.0 / 360.0) * 1024;
    QTest::newRow("just west of 180") << 179.999999 << (359.999999 / 360.0) * 1024;
    QTest::newRow("720 + 90") << 810.0 << 768.0;
}

void TstTileMath::antimeridian()
{
    QFETCH(double, longitude);
    QFETCH(double, x);
    const QPointF px = TileMath::worldPixel({10.0, longitude}, 2);
    QVERIFY2(std::abs(px.x() - x) < 1e-6, qPrintable(QString::number(px.x(), 'f', 9)));
    QVERIFY(px.x() < 1024.0);
    const TileId t = TileMath::tileAt({10.0, longitude}, 2);
    QCOMPARE(t.x, int(x / 256));
}

void TstTileMath::tilesCovering_data()
{
    QTest::addColumn<Box>("box");
    QTest::addColumn<int>("z");
    QTest::addColumn<int>("count");
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("last");
    QTest::newRow("world z0") << Box{-90, -180, 90, 180} << 0 << 1 << "0/0/0"
                              << "0/0/0";
    QTest::newRow("world z3") << Box{-90, -180, 90, 180} << 3 << 64 << "3/0/0"
                              << "3/7/7";
    QTest::newRow("south and north swapped") << Box{90, -180, -90, 180} << 2 << 16 << "2/0/0"
                                             << "2/3/3";
    QTest::newRow("Toulouse z10") << Box{43.5, 1.3, 43.7, 1.6} << 10 << 4 << "10/515/373"
                                  << "10/516/374";
    QTest::newRow("Toulouse z14") << Box{43.5, 1.3, 43.7, 1.6} << 14 << 14 * 14 << "14/8251/5976"
                                  << "14/8264/5989";
    QTest::newRow("point") << Box{43.59, 1.23, 43.59, 1.23} << 16 << 1 << "16/32991/23933"
                           << "16/32991/23933";
    QTest::newRow("edges on tile boundaries z1") << Box{0, 0, 60, 180} << 1 << 1 << "1/1/0"
                                                 << "1/1/0";
    QTest::newRow("east edge at 180") << Box{-10, 170, 10, 180} << 5 << 2 << "5/31/15"
                                      << "5/31/16";
    QTest::newRow("across 180 z5") << Box{-20, 175, -15, -175} << 5 << 2 << "5/31/17"
                                   << "5/0/17";
    QTest::newRow("across 180 z8") << Box{-20, 179, -15, -179} << 8 << 2 * 5 << "8/255/138"
                                   << "8/0/142";
    QTest::newRow("across 180, nearly all the world") << Box{0, 10, 10, 5} << 3 << 8 << "3/0/3"
                                                      << "3/7/3";
    QTest::newRow("Arctic above 85.05") << Box{80, -10, 90, 10} << 4 << 2 * 2 << "4/7/0"
                                        << "4/8/1";
    QTest::newRow("Antarctic below -85.05") << Box{-90, -10, -86, 10} << 4 << 2 << "4/7/15"
                                            << "4/8/15";
    QTest::newRow("NaN") << Box{qQNaN(), 0, 10, 10} << 3 << 0 << ""
                         << "";
}

void TstTileMath::tilesCovering()
{
    QFETCH(Box, box);
    QFETCH(int, z);
    QFETCH(int, count);
    QFETCH(QString, first);
    QFETCH(QString, last);
    const auto tiles = TileMath::tilesCovering(box.south, box.west, box.north, box.east, z);
    const auto name = [](const TileId& t) { return QStringLiteral("%1/%2/%3").arg(t.z).arg(t.x).arg(t.y); };
    QCOMPARE(int(tiles.size()), count);
    QCOMPARE(TileMath::tileCount(box.south, box.west, box.north, box.east, z, z), qint64(count));
    if (count == 0)
        return;
    QCOMPARE(name(tiles.front()), first);
    QCOMPARE(name(tiles.back()), last);
    QSet<TileId> seen;
    for (const TileId& t : tiles) {
        QVERIFY(TileMath::isValid(t));
        QVERIFY2(!seen.contains(t), qPrintable(name(t)));
        seen.insert(t);
    }
    // At low zooms, against every tile of the world: a box with an area has exactly the tiles
    // that share some of it.
    const double lat = TileMath::kMaxLatitude;
    const Box ordered{std::clamp(std::min(box.south, box.north), -lat, lat), box.west,
                      std::clamp(std::max(box.south, box.north), -lat, lat), box.east};
    const bool area = ordered.south < ordered.north && box.west != box.east;
    if (z > 8 || !area)
        return;
    for (int x = 0; x < (1 << z); ++x)
        for (int y = 0; y < (1 << z); ++y)
            QVERIFY2(seen.contains({z, x, y}) == overlaps({z, x, y}, ordered), qPrintable(name({z, x, y})));
}

void TstTileMath::tileCountWithoutListing_data()
{
    QTest::addColumn<Box>("box");
    QTest::addColumn<int>("minZoom");
    QTest::addColumn<int>("maxZoom");
    QTest::addColumn<qint64>("count");
    const Box world{-90, -180, 90, 180};
    QTest::newRow("world z0-4") << world << 0 << 4 << qint64(341);
    QTest::newRow("world z0-18") << world << 0 << 18 << qint64(91625968981);
    // (4^31 - 1) / 3: no overflow at the deepest zoom.
    QTest::newRow("world z0-30") << world << 0 << 30 << qint64(1537228672809129301);
    QTest::newRow("Toulouse z10-14") << Box{43.5, 1.3, 43.7, 1.6} << 10 << 14
                                     << qint64(4 + 6 + 20 + 56 + 196);
    QTest::newRow("max below min") << world << 4 << 2 << qint64(0);
}

void TstTileMath::tileCountWithoutListing()
{
    QFETCH(Box, box);
    QFETCH(int, minZoom);
    QFETCH(int, maxZoom);
    QFETCH(qint64, count);
    QCOMPARE(TileMath::tileCount(box.south, box.west, box.north, box.east, minZoom, maxZoom), count);
    if (maxZoom > 14)
        return;
    qint64 listed = 0;
    for (int z = minZoom; z <= maxZoom; ++z)
        listed += qint64(TileMath::tilesCovering(box.south, box.west, box.north, box.east, z).size());
    QCOMPARE(listed, count);
}

void TstTileMath::metresPerPixel_data()
{
    QTest::addColumn<double>("latitude");
    QTest::addColumn<double>("zoom");
    QTest::newRow("equator z0") << 0.0 << 0.0;
    QTest::newRow("equator z18") << 0.0 << 18.0;
    QTest::newRow("Toulouse z15") << 43.59 << 15.0;
    QTest::newRow("60S z12.5") << -60.0 << 12.5;
    QTest::newRow("80N z20") << 80.0 << 20.0;
}

// Against the geodesic (GeographicLib) one pixel long, east along the parallel.
void TstTileMath::metresPerPixel()
{
    QFETCH(double, latitude);
    QFETCH(double, zoom);
    const double m = TileMath::metresPerPixel(latitude, zoom);
    if (latitude == 0.0 && zoom == 0.0)
        QVERIFY(std::abs(m - 156543.03) < 0.01); // the figure every tile server publishes
    const double deep = 24.0;
    const QPointF px = TileMath::worldPixel({latitude, 3.0}, deep);
    const double geodesic = Geodesy::distance(TileMath::fromWorldPixel(px, deep),
                                              TileMath::fromWorldPixel(px + QPointF(1, 0), deep));
    const double expected = geodesic * std::exp2(deep - zoom);
    QVERIFY2(std::abs(m - expected) < 1e-6 * expected,
             qPrintable(QStringLiteral("%1 %2").arg(m).arg(expected)));
    QVERIFY(std::abs(TileMath::metresPerPixel(latitude, zoom + 1) * 2 - m) < 1e-9 * m);
}

QTEST_GUILESS_MAIN(TstTileMath)
#include "tst_tilemath.moc"
