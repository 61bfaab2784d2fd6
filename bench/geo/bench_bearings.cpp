// The fixes' statistics, then the Bearings window at scale. First a seeded Monte Carlo through
// BearingFix: how often the 95% ellipse holds the truth (target 93-97% with 10 bearings or more) and
// the mean error as a fraction of the semi-minor axis (target under 0.1), per drive, noise and count;
// OGM_BENCH_RUNS sets the runs a cell (400). Then 100,000 messages from 50 platforms heard along a
// drive, entered in the RX table's model and taken by the window; every fix computed again, and one
// redraw of the compass and the map. Targets: the fixes under 300 ms, a redraw under 30 ms.
#include "bench/BenchSupport.h"
#include "geo/BearingSet.h"
#include "geo/Circular.h"
#include "geo/TileMath.h"
#include "store/MbTiles.h"
#include "store/TileSource.h"
#include "ui/BearingMapWidget.h"
#include "ui/BearingsWindow.h"
#include "ui/CompassWidget.h"
#include "utils/RxTableModel.h"

#include <QApplication>
#include <QBuffer>
#include <QComboBox>
#include <QElapsedTimer>
#include <QImage>
#include <QSpinBox>

#include <cmath>
#include <cstdio>
#include <random>

using namespace OrviaGonioManager;

namespace {

constexpr int kMessages = 100000;
constexpr int kPlatforms = 50;
constexpr double kFixTargetMs = 300;
constexpr double kRedrawTargetMs = 30;

// A drive 40 km east, platforms scattered within 20 km of it, bearings with 2 degrees of noise.
std::vector<Utils::RxTableModel::Row> drive()
{
    std::mt19937 rng(1);
    std::uniform_real_distribution<double> along(0, 40000), across(-20000, 20000);
    std::normal_distribution<double> noise(0, 2);
    const Geo::GeoPoint start{43.6, 1.0};
    std::vector<Geo::GeoPoint> platforms;
    for (int p = 0; p < kPlatforms; ++p)
        platforms.push_back(
            Geo::Geodesy::destination(Geo::Geodesy::destination(start, 90, along(rng)), 0, across(rng)));
    std::vector<Utils::RxTableModel::Row> rows;
    rows.reserve(kMessages);
    for (int i = 0; i < kMessages; ++i) {
        const int p = i % kPlatforms;
        const Geo::GeoPoint at = Geo::Geodesy::destination(start, 90, 40000.0 * i / kMessages);
        Utils::RxTableModel::Row row;
        row.message.platformId =
            QStringLiteral("%1").arg(0x10000 + p * 4099, 5, 16, QLatin1Char('0')).toUpper();
        row.message.mjd = 61000;
        row.message.secondsOfDay = i * 0.5;
        row.message.flagBit0 = true;
        row.message.gnxLatitude = at.latitude;
        row.message.gnxLongitude = at.longitude;
        row.message.gnxDirection = 90;
        row.message.direction = quint16(
            std::lround(Geo::wrap360(Geo::Geodesy::bearing(at, platforms[size_t(p)]) + noise(rng))) % 360);
        row.index = QString::number(p);
        row.label = QStringLiteral("Platform %1").arg(p);
        row.payloadPosition = i % 7 == 0;
        row.payloadLatitude = platforms[size_t(p)].latitude;
        row.payloadLongitude = platforms[size_t(p)].longitude;
        rows.push_back(std::move(row));
    }
    return rows;
}

// Where the bearings are taken from: a straight 40 km drive passing the platform, or a loop around it.
struct Drive
{
    const char* name;
    double offset; // metres from the platform
    bool loop;
};

Geo::GeoPoint takenAt(const Geo::GeoPoint& platform, const Drive& d, int i, int count)
{
    using Geo::Geodesy::destination;
    const double f = double(i) / count;
    if (d.loop)
        return destination(platform, 360.0 * f, d.offset);
    const double along = -20000 + 40000.0 * i / (count - 1);
    return destination(destination(platform, 180, d.offset), along < 0 ? 270 : 90, std::abs(along));
}

void monteCarlo()
{
    const int runs = std::max(1, qEnvironmentVariableIntValue("OGM_BENCH_RUNS") > 0
                                     ? qEnvironmentVariableIntValue("OGM_BENCH_RUNS")
                                     : 400);
    const Geo::GeoPoint platform{43.6, 1.3};
    const Drive drives[] = {{"straight, 5 km off", 5000, false},
                            {"straight, 30 km off", 30000, false},
                            {"loop, 10 km round", 10000, true}};
    std::printf(
        "%d runs a cell. ellipse: how often the 95%% ellipse holds the truth; bias/b: the length of the "
        "mean error over the mean semi-minor axis b, +- its Monte Carlo standard error; outliers: runs "
        "with a bearing left out\n",
        runs);
    std::printf("%-20s %5s %5s %8s %15s %9s %9s %6s\n", "drive", "noise", "n", "ellipse", "bias/b", "b (m)",
                "outliers", "no fix");
    QElapsedTimer t;
    t.start();
    for (const Drive& d : drives)
        for (double sigma : {0.5, 1.5, 3.0})
            for (int n : {3, 10, 40, 300, 1000}) {
                std::mt19937 rng(quint32(n * 7919 + int(sigma * 10) * 31 + int(d.offset)));
                std::normal_distribution<double> noise(0, sigma);
                std::vector<Geo::GeoPoint> from;
                std::vector<double> exact;
                for (int i = 0; i < n; ++i) {
                    from.push_back(takenAt(platform, d, i, n));
                    exact.push_back(Geo::Geodesy::bearing(from.back(), platform));
                }
                int ok = 0, inside = 0, outliers = 0;
                double east = 0, north = 0, east2 = 0, north2 = 0, minor = 0;
                std::vector<Geo::BearingLine> lines(static_cast<size_t>(n));
                for (int r = 0; r < runs; ++r) {
                    for (int i = 0; i < n; ++i)
                        lines[size_t(i)] = {from[size_t(i)], Geo::wrap360(exact[size_t(i)] + noise(rng))};
                    const Geo::Fix f = Geo::BearingFix::solve(lines);
                    if (!f.ok)
                        continue;
                    ++ok;
                    outliers += f.outliers > 0;
                    const double miss = Geo::Geodesy::distance(platform, f.position);
                    const double az = Geo::Geodesy::bearing(platform, f.position) * M_PI / 180;
                    east += miss * std::sin(az);
                    north += miss * std::cos(az);
                    east2 += std::pow(miss * std::sin(az), 2);
                    north2 += std::pow(miss * std::cos(az), 2);
                    minor += f.semiMinor;
                    // The truth in the ellipse's axes.
                    const double a =
                        (Geo::Geodesy::bearing(f.position, platform) - f.orientation) * M_PI / 180;
                    const double u = miss * std::cos(a) / f.semiMajor, v = miss * std::sin(a) / f.semiMinor;
                    inside += u * u + v * v <= 1.0;
                }
                const double k = std::max(ok, 1), b = std::max(minor / k, 1e-9);
                const double spread = std::sqrt(std::max(0.0, east2 / k - std::pow(east / k, 2)) +
                                                std::max(0.0, north2 / k - std::pow(north / k, 2)));
                std::printf("%-20s %4.1f° %5d %7.1f%% %7.3f ± %5.3f %9.1f %8.1f%% %6d\n", d.name, sigma, n,
                            100.0 * inside / k, std::hypot(east, north) / k / b, spread / std::sqrt(k) / b, b,
                            100.0 * outliers / k, runs - ok);
            }
    std::printf("Monte Carlo: %.1f s\n\n", msSince(t) / 1000);
}

} // namespace

// A 256 by 256 PNG of one colour with a grid line, as small as street-map tiles are not: decoding
// costs what it costs for any PNG of that size.
QByteArray benchTile(const Geo::TileId& id)
{
    QImage image(256, 256, QImage::Format_RGB32);
    image.fill(QColor::fromHsv((id.x * 37 + id.y * 11) % 360, 60, 230));
    for (int i = 0; i < 256; ++i)
        image.setPixel(i, (i * 7 + id.x) % 256, qRgb(40, 40, 40));
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

// The map alone at 1920 by 1080 over tiles of an MBTiles file, every platform shown: a redraw, and
// a pan of one screen (the first paint, while its tiles come, and once they are in).
void mapOnTiles(const Ui::BearingMapWidget& from, const QString& folder)
{
    Ui::BearingMapWidget map;
    map.resize(1920, 1080);
    map.setScene(from.scene());
    QSet<QString> all;
    for (const auto& lines : from.scene().bearings)
        all.insert(lines.platform);
    map.setShownPlatforms(all);
    map.show();
    map.fit();
    const int z = int(std::floor(map.zoom() + 0.5));
    map.setView(map.centre(), z);
    // The tiles of the view and of a screen either side.
    const QString file = folder + QStringLiteral("/bench.mbtiles");
    QString error;
    {
        auto out = Store::MbTiles::create(file, {{QStringLiteral("name"), QStringLiteral("bench")}}, &error);
        if (!out)
            qFatal("%s", qPrintable(error));
        const Geo::TileId middle = Geo::TileMath::tileAt(map.centre(), z);
        for (int dx = -14; dx <= 14; ++dx)
            for (int dy = -4; dy <= 4; ++dy)
                out->put({z, middle.x + dx, middle.y + dy}, benchTile({z, middle.x + dx, middle.y + dy}));
        out->commit();
    }
    Store::TileSource source;
    source.setMbTiles(file);
    map.setTileSource(&source);
    const auto settle = [&] {
        do {
            map.grab();
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
        } while (source.pendingCount() > 0);
        QCoreApplication::processEvents();
    };
    settle();
    QElapsedTimer t;
    double redrawMs = 1e9;
    for (int i = 0; i < 5; ++i) {
        t.restart();
        map.grab();
        redrawMs = std::min(redrawMs, msSince(t));
    }
    const QPointF east = map.toScreen(map.centre()) + QPointF(map.width(), 0);
    map.setView(map.toGeo(east), z);
    t.restart();
    map.grab();
    const double panFirstMs = msSince(t);
    settle();
    double panMs = 1e9;
    for (int i = 0; i < 5; ++i) {
        t.restart();
        map.grab();
        panMs = std::min(panMs, msSince(t));
    }
    std::printf(
        "map on tiles at 1920x1080, zoom %d, %d platforms, %d tiles drawn: redraw %.1f ms; a pan of one "
        "screen %.1f ms at once, %.1f ms with its tiles; against the %.0f ms target: %.2f\n",
        z, int(all.size()), map.tilesDrawn(), redrawMs, panFirstMs, panMs, kRedrawTargetMs,
        std::max(panFirstMs, panMs) / kRedrawTargetMs);
}

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    monteCarlo();
    const auto sandbox = enterBenchSandbox();
    qputenv("XDG_CONFIG_HOME", sandbox->filePath(QStringLiteral("config")).toLocal8Bit());
    Utils::RxTableModel model;
    QSpinBox offset;
    offset.setRange(0, 359);
    QComboBox unit;
    unit.addItems({QStringLiteral("km"), QStringLiteral("miles"), QStringLiteral("nautical miles")});
    Ui::BearingsWindow window(&model, &offset, &unit);
    window.resize(1200, 860);
    window.show();
    QCoreApplication::processEvents();

    QElapsedTimer t;
    t.start();
    model.addRows(drive());
    const double intoTable = msSince(t);
    t.restart();
    window.refresh();
    const double onGuiThread = msSince(t);
    while (!window.fixesReady())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    const double intoWindow = msSince(t);

    t.restart();
    Geo::BearingSet rebuilt;
    rebuilt.rebuild(model);
    const double rebuildMs = msSince(t);
    double fixMs = 1e9;
    std::map<QString, Geo::Fix> fixes;
    for (int i = 0; i < 3; ++i) {
        t.restart();
        fixes = window.bearings().fixes();
        fixMs = std::min(fixMs, msSince(t));
    }
    // The same on one core.
    t.restart();
    for (const auto& [id, p] : window.bearings().platforms())
        Geo::BearingFix::solve(Geo::BearingSet::lines(p));
    const double oneCoreMs = msSince(t);
    int ok = 0;
    for (const auto& [id, f] : fixes)
        ok += f.ok;

    // A redraw: the compass from the computed data, then both widgets painted; the least of five.
    struct Redraw
    {
        double total = 1e9, compass = 1e9, map = 1e9;
    };
    const auto redraw = [&] {
        Redraw r;
        for (int i = 0; i < 5; ++i) {
            QElapsedTimer part;
            t.restart();
            window.redraw();
            part.start();
            window.compass()->grab();
            r.compass = std::min(r.compass, msSince(part));
            part.restart();
            window.map()->grab();
            r.map = std::min(r.map, msSince(part));
            r.total = std::min(r.total, msSince(t));
        }
        return r;
    };
    const Redraw all = redraw();
    // One platform selected, as an operator follows one transmitter.
    window.findChild<QComboBox*>(QStringLiteral("comboBoxBearingsPlatform"))->setCurrentIndex(1);
    const Redraw one = redraw();

    std::printf(
        "%d messages from %d platforms into the RX table: %.0f ms; then the window: %.0f ms (%d fixes), "
        "of which %.0f ms on its thread\n",
        kMessages, kPlatforms, intoTable, intoWindow, ok, onGuiThread);
    std::printf("the bearings taken again from the table: %.0f ms\n", rebuildMs);
    std::printf("every fix again: %.1f ms (%.1f ms on one core); against the %.0f ms target: %.2f\n", fixMs,
                oneCoreMs, kFixTargetMs, fixMs / kFixTargetMs);
    for (const auto& [what, r] : {std::pair{"all platforms", all}, std::pair{"one platform", one}})
        std::printf("redraw, %s: %.1f ms (compass %.1f, map %.1f); against the %.0f ms target: %.2f\n", what,
                    r.total, r.compass, r.map, kRedrawTargetMs, r.total / kRedrawTargetMs);
    window.findChild<QComboBox*>(QStringLiteral("comboBoxBearingsPlatform"))->setCurrentIndex(0);
    window.redraw();
    mapOnTiles(*window.map(), sandbox->path());
    std::printf("resident memory: %.0f MB\n", residentMb());
    return 0;
}
