// Bearings as pure functions: circular statistics, geodesics against published values, fixes and
// the antenna check against the emulator's scenarios, and the exports through GDAL.
#include "geo/AntennaCheck.h"
#include "geo/BearingExport.h"
#include "geo/BearingFix.h"
#include "geo/Circular.h"
#include "geo/Homing.h"
#include "sim/Scenario.h"

#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <random>

using namespace OrviaGonioManager::Geo;

namespace {

// A drive along a road past platforms around it; the receiver's heading follows the road.
std::shared_ptr<const gnxsim::Scenario> scenario(double bias, double noise, const QString& path = {})
{
    const QString json = QStringLiteral(R"({"receiver": {"path": %1, "speed": 20}, "bias": %2, "noise": %3,
        "platforms": [{"id": "3CA97", "position": [43.65, 1.26], "format": "ORV-GPS-SIGNED"},
                      {"id": "33BBA", "position": [43.56, 1.33]},
                      {"id": "9579F", "position": [43.64, 1.42]}]})");
    QString error;
    auto s = gnxsim::Scenario::fromJson(
        json.arg(path.isEmpty() ? "[[43.59, 1.23], [43.605, 1.28], [43.60, 1.34], [43.62, 1.39]]" : path,
                 QString::number(bias), QString::number(noise))
            .toUtf8(),
        &error);
    if (!s)
        qFatal("scenario: %s", qPrintable(error));
    return s;
}

// count bearings of platform, evenly along the drive, as the receiver measures them.
std::vector<BearingLine> observe(const gnxsim::Scenario& s, int platform, int count, quint32 seed)
{
    std::mt19937 rng(seed);
    std::vector<BearingLine> lines;
    for (int i = 0; i < count; ++i) {
        const auto o = s.observe(s.duration() * i / (count - 1), platform, rng);
        lines.push_back({{o.pose.position.lat, o.pose.position.lon}, o.direction});
    }
    return lines;
}

const auto truth = [](const gnxsim::Scenario& s, int i) {
    return GeoPoint{s.platforms()[size_t(i)].position.lat, s.platforms()[size_t(i)].position.lon};
};
const auto miss = [](const Fix& f, const GeoPoint& at) { return Geodesy::distance(f.position, at); };

// The truth within the fix's 95% ellipse.
bool ellipseHolds(const Fix& f, const GeoPoint& at)
{
    const double a = (Geodesy::bearing(f.position, at) - f.orientation) * M_PI / 180;
    const double u = miss(f, at) * std::cos(a) / f.semiMajor, v = miss(f, at) * std::sin(a) / f.semiMinor;
    return u * u + v * v <= 1.0;
}

// count bearings with Gaussian noise, from a 20 km eastward drive passing offset metres south of at.
std::vector<BearingLine> drivePast(const GeoPoint& at, double offset, int count, double sigma,
                                   std::mt19937& rng)
{
    std::normal_distribution<double> noise(0, sigma);
    const GeoPoint abeam = Geodesy::destination(at, 180, offset);
    std::vector<BearingLine> lines;
    for (int i = 0; i < count; ++i) {
        const double along = -10000 + 20000.0 * i / (count - 1);
        const GeoPoint from = Geodesy::destination(abeam, along < 0 ? 270 : 90, std::abs(along));
        lines.push_back({from, wrap360(Geodesy::bearing(from, at) + noise(rng))});
    }
    return lines;
}

} // namespace

class TestBearings : public QObject
{
    Q_OBJECT

private slots:
    void circular_data()
    {
        QTest::addColumn<QList<double>>("angles");
        QTest::addColumn<double>("mean");
        QTest::addColumn<double>("deviation"); // -1: undefined (spread all round)
        QTest::newRow("across north") << QList<double>{359, 1} << 0.0 << 1.0;
        QTest::newRow("single") << QList<double>{123.5} << 123.5 << 0.0;
        QTest::newRow("uniform") << QList<double>{0, 90, 180, 270} << 0.0 << -1.0;
        QTest::newRow("three near south") << QList<double>{170, 180, 190} << 180.0 << 8.18;
    }
    void circular()
    {
        QFETCH(QList<double>, angles);
        QFETCH(double, mean);
        QFETCH(double, deviation);
        const CircularStats s = circularStats(std::vector<double>(angles.begin(), angles.end()));
        QCOMPARE(s.count, angles.size());
        if (deviation < 0)
            QVERIFY(s.resultant < 1e-12);
        else
            QVERIFY2(std::abs(wrap180(s.mean - mean)) < 1e-9 && std::abs(s.deviation - deviation) < 0.01,
                     qPrintable(QStringLiteral("%1, %2").arg(s.mean).arg(s.deviation)));
    }

    // Published geodesic results on WGS84.
    void geodesic_data()
    {
        QTest::addColumn<QList<double>>("points"); // latitude, longitude of each
        QTest::addColumn<double>("azimuth");
        QTest::addColumn<double>("metres");
        QTest::newRow("Wellington to Salamanca")
            << QList<double>{-41.32, 174.81, 40.96, -5.50} << 161.067669986 << 19959679.267;
        QTest::newRow("a degree of meridian") << QList<double>{0, 5, 1, 5} << 0.0 << 110574.389;
        QTest::newRow("a degree of the equator, across the date line")
            << QList<double>{0, 179.5, 0, -179.5} << 90.0 << 111319.491;
    }
    void geodesic()
    {
        QFETCH(QList<double>, points);
        QFETCH(double, azimuth);
        QFETCH(double, metres);
        const GeoPoint a{points[0], points[1]}, b{points[2], points[3]};
        QVERIFY(std::abs(wrap180(Geodesy::bearing(a, b) - azimuth)) < 1e-8);
        QVERIFY(std::abs(Geodesy::distance(a, b) - metres) < 1e-3);
        const GeoPoint back = Geodesy::destination(a, azimuth, metres);
        QVERIFY(std::abs(back.latitude - b.latitude) < 1e-8 &&
                std::abs(wrap180(back.longitude - b.longitude)) < 1e-8);
    }

    void fix_data()
    {
        QTest::addColumn<double>("noise");
        QTest::addColumn<QString>("path"); // empty: the road
        QTest::addColumn<int>("bearings");
        QTest::addColumn<QString>("reason"); // empty: a fix
        QTest::newRow("three exact bearings") << 0.0 << "" << 3 << "";
        QTest::newRow("noise 2 degrees") << 2.0 << "" << 40 << "";
        QTest::newRow("two points") << 0.0 << "" << 2 << "heard from 2 point(s)";
        QTest::newRow("parallel, far away") << 0.0 << "[[10.0, 100.0], [10.0, 100.01]]" << 5 << "within";
        QTest::newRow("one point") << 0.0 << "[[43.59, 1.23]]" << 8 << "heard from 1 point(s)";
    }
    void fix()
    {
        QFETCH(double, noise);
        QFETCH(QString, path);
        QFETCH(int, bearings);
        QFETCH(QString, reason);
        const auto s = scenario(0, noise, path);
        for (int platform = 0; platform < 3; ++platform) {
            const Fix f = BearingFix::solve(observe(*s, platform, bearings, 7));
            if (!reason.isEmpty()) {
                QVERIFY2(!f.ok && f.reason.contains(reason), qPrintable(f.reason));
                continue;
            }
            QVERIFY2(f.ok, qPrintable(f.reason));
            // Exact bearings meet at the truth; noisy ones leave it inside the error ellipse.
            if (noise == 0)
                QVERIFY2(miss(f, truth(*s, platform)) < 1.0,
                         qPrintable(QString::number(miss(f, truth(*s, platform)))));
            else
                QVERIFY(ellipseHolds(f, truth(*s, platform)));
            QCOMPARE(f.used, bearings);
            QVERIFY(f.semiMajor >= f.semiMinor && f.orientation >= 0 && f.orientation < 180);
        }
    }

    // Exact bearings from points around the truth, or pointing away from it.
    void geometry_data()
    {
        QTest::addColumn<double>("latitude");        // of the truth
        QTest::addColumn<double>("metres");          // from it to the points
        QTest::addColumn<QList<double>>("azimuths"); // from it to the points
        QTest::addColumn<double>("turn");            // added to every bearing
        QTest::addColumn<QString>("reason");         // empty: a fix within a metre
        QTest::newRow("1 km") << 43.6 << 1e3 << QList<double>{0, 100, 230} << 0.0 << "";
        QTest::newRow("1,000 km") << 20.0 << 1e6 << QList<double>{10, 80, 150, 300} << 0.0 << "";
        // Bearings all about north, yet the lines cross at 120 degrees.
        QTest::newRow("near the pole") << 89.999 << 11e3 << QList<double>{0, 120, 240} << 0.0 << "";
        QTest::newRow("2,500 km") << 20.0 << 2.5e6 << QList<double>{10, 80, 150} << 0.0
                                  << "cross 2500 km away";
        QTest::newRow("crossing behind") << 43.6 << 5e3 << QList<double>{0, 30, 60} << 180.0 << "behind";
    }
    void geometry()
    {
        QFETCH(double, latitude);
        QFETCH(double, metres);
        QFETCH(QList<double>, azimuths);
        QFETCH(double, turn);
        QFETCH(QString, reason);
        const GeoPoint at{latitude, 1.0};
        std::vector<BearingLine> lines;
        for (double a : azimuths) {
            const GeoPoint from = Geodesy::destination(at, a, metres);
            lines.push_back({from, wrap360(Geodesy::bearing(from, at) + turn)});
        }
        const Fix f = BearingFix::solve(lines);
        if (!reason.isEmpty()) {
            QVERIFY2(!f.ok && f.reason.contains(reason), qPrintable(f.reason));
            return;
        }
        QVERIFY2(f.ok, qPrintable(f.reason));
        QVERIFY2(miss(f, at) < 1.0, qPrintable(QString::number(miss(f, at))));
    }

    // Gaussian bearings from a drive 5 km past the truth: the 95% ellipse holds it 91-99% of the time.
    void coverage_data()
    {
        QTest::addColumn<int>("bearings");
        QTest::newRow("40 bearings") << 40;
        QTest::newRow("300 bearings") << 300;
    }
    void coverage()
    {
        QFETCH(int, bearings);
        constexpr int kRuns = 200;
        const GeoPoint at{43.6, 1.3};
        int inside = 0;
        for (int run = 0; run < kRuns; ++run) {
            std::mt19937 rng(quint32(1000 + run));
            const Fix f = BearingFix::solve(drivePast(at, 5000, bearings, 1.5, rng));
            QVERIFY2(f.ok, qPrintable(f.reason));
            inside += ellipseHolds(f, at);
        }
        QVERIFY2(inside >= 0.91 * kRuns && inside <= 0.99 * kRuns, qPrintable(QString::number(inside)));
    }

    // Gaussian bearings are left alone however many; a gross error is left out, as is one the user
    // unticks, and neither moves the fix.
    void outliers_data()
    {
        QTest::addColumn<int>("bearings");
        QTest::addColumn<int>("gross");    // the bearing turned by 30 degrees; -1: none
        QTest::addColumn<int>("excluded"); // the bearing unticked; -1: none
        QTest::newRow("1,000 Gaussian") << 1000 << -1 << -1;
        QTest::newRow("30 degrees among 40") << 40 << 17 << -1;
        QTest::newRow("30 degrees among 20, one unticked") << 20 << 5 << 9;
    }
    void outliers()
    {
        QFETCH(int, bearings);
        QFETCH(int, gross);
        QFETCH(int, excluded);
        const GeoPoint at{43.6, 1.3};
        for (quint32 seed = 1; seed <= 5; ++seed) {
            std::mt19937 rng(seed);
            std::vector<BearingLine> lines = drivePast(at, 5000, bearings, 1.5, rng);
            if (gross >= 0)
                lines[size_t(gross)].bearing = wrap360(lines[size_t(gross)].bearing + 30);
            if (excluded >= 0)
                lines[size_t(excluded)].use = false;
            const Fix f = BearingFix::solve(lines);
            QVERIFY2(f.ok, qPrintable(f.reason));
            QCOMPARE(f.outliers, gross >= 0 ? 1 : 0);
            QCOMPARE(f.used, bearings - (gross >= 0) - (excluded >= 0));
            QVERIFY2(miss(f, at) < 300, qPrintable(QString::number(miss(f, at))));
            if (gross >= 0)
                QVERIFY(f.status[size_t(gross)] == Fix::Outlier && std::abs(f.residuals[size_t(gross)]) > 25);
            if (excluded >= 0)
                QCOMPARE(f.status[size_t(excluded)], Fix::Excluded);
        }
    }

    // Published two-sided Student t quantiles, on which the outlier threshold rests.
    void studentT_data()
    {
        QTest::addColumn<double>("tail");
        QTest::addColumn<int>("dof");
        QTest::addColumn<double>("quantile");
        QTest::newRow("5%, 10") << 0.05 << 10 << 2.2281;
        QTest::newRow("1%, 1") << 0.01 << 1 << 63.657;
        QTest::newRow("5%, 2") << 0.05 << 2 << 4.3027;
        QTest::newRow("0.1%, 120") << 0.001 << 120 << 3.3735;
    }
    void studentT()
    {
        QFETCH(double, tail);
        QFETCH(int, dof);
        QFETCH(double, quantile);
        QVERIFY2(std::abs(BearingFix::studentT(tail, dof) - quantile) < 1e-3 * quantile,
                 qPrintable(QString::number(BearingFix::studentT(tail, dof))));
    }

    // Where to go, against published geodesics (a degree of meridian and of the equator on WGS84),
    // in each distance unit and relative to the heading.
    void homing_data()
    {
        QTest::addColumn<QList<double>>("fromTo"); // lat, lon, lat, lon
        QTest::addColumn<double>("heading");       // NaN: unknown
        QTest::addColumn<int>("unit");
        QTest::addColumn<QString>("distance");
        QTest::addColumn<QString>("bearing");
        const double none = std::nan("");
        QTest::newRow("north, km") << QList<double>{0, 0, 1, 0} << none << 0 << "110.6 km"
                                   << "000°";
        QTest::newRow("north, miles, heading east") << QList<double>{0, 0, 1, 0} << 90.0 << 1 << "68.7 miles"
                                                    << "000°, 90° left";
        QTest::newRow("east, NM, dead ahead") << QList<double>{0, 0, 0, 1} << 90.0 << 2 << "60.1 NM"
                                              << "090°, dead ahead";
        QTest::newRow("metres, across north") << QList<double>{0, 0, 0.005, -0.001} << 350.0 << 0 << "564 m"
                                              << "349°, 1° left";
        QTest::newRow("behind") << QList<double>{0, 0, -0.05, 0} << 10.0 << 0 << "5.53 km"
                                << "180°, 170° right";
    }
    void homing()
    {
        QFETCH(QList<double>, fromTo);
        QFETCH(double, heading);
        QFETCH(int, unit);
        QFETCH(QString, distance);
        QFETCH(QString, bearing);
        const Homing::Leg leg =
            Homing::leg({fromTo[0], fromTo[1]}, {fromTo[2], fromTo[3]},
                        std::isnan(heading) ? std::nullopt : std::optional<double>(heading));
        QCOMPARE(Homing::distanceText(leg.metres, Homing::Unit(unit)), distance);
        QCOMPARE(Homing::bearingText(leg), bearing);
    }

    // A bias of 7° at 2° of noise is found from 50 samples within 0.5°.
    void antennaCheck_data()
    {
        QTest::addColumn<int>("samples");
        QTest::addColumn<int>("offset");
        QTest::addColumn<int>("suggested"); // -1: none
        QTest::newRow("50 samples") << 50 << 0 << 353;
        QTest::newRow("from an offset of 3") << 50 << 3 << 356;
        QTest::newRow("9 samples: too few") << 9 << 0 << -1;
    }
    void antennaCheck()
    {
        QFETCH(int, samples);
        QFETCH(int, offset);
        QFETCH(int, suggested);
        const auto s = scenario(7, 2);
        std::vector<AntennaSample> data;
        std::mt19937 rng(11);
        for (int i = 0; i < samples; ++i) {
            const auto o = s->observe(s->duration() * i / samples, i % 3, rng);
            data.push_back({{o.pose.position.lat, o.pose.position.lon}, truth(*s, i % 3), o.direction});
        }
        const AntennaCheck c = AntennaCheck::compute(data, offset);
        QVERIFY2(std::abs(c.meanError() - 7) < 0.5, qPrintable(QString::number(c.meanError())));
        QCOMPARE(c.suggestedOffset.value_or(-1), suggested);
    }

    // Each export passes GDAL, and the GeoJSON gives back the fixes to 1e-7°.
    void exports()
    {
        const QString ogrinfo = QStandardPaths::findExecutable("ogrinfo");
        if (ogrinfo.isEmpty())
            QSKIP("ogrinfo (gdal-bin) is not installed");
        BearingSet set;
        const auto s = scenario(0, 1);
        std::mt19937 rng(5);
        for (int i = 0; i < 30; ++i) {
            const auto o = s->observe(s->duration() * i / 29, i % 3, rng);
            OrviaGonioManager::Utils::RxTableModel::Row row;
            auto& m = row.message;
            m.platformId = s->platforms()[size_t(i % 3)].id, m.mjd = 61000, m.secondsOfDay = i * 10;
            m.flagBit0 = true, m.gnxLatitude = o.pose.position.lat, m.gnxLongitude = o.pose.position.lon;
            m.direction = quint16(std::lround(o.direction) % 360);
            row.byNumber.payloadPosition = i % 3 == 0;
            row.byNumber.payloadLatitude = truth(*s, 0).latitude;
            row.byNumber.payloadLongitude = truth(*s, 0).longitude;
            set.add(row);
        }
        BearingExport::Content content{&set, set.fixes(), 20000};
        QVERIFY(content.fixes.at("3CA97").ok);
        QTemporaryDir dir;
        QString out; // the GeoJSON's, read last
        for (const QString format : {"gpx", "geojson"}) {
            const QString path = dir.filePath("bearings." + format);
            BearingExport::save(path,
                                format == "gpx" ? BearingExport::gpx(set) : BearingExport::geoJson(content));
            QProcess p;
            p.start(ogrinfo, {"-ro", "-al", path});
            QVERIFY(p.waitForFinished(60000));
            out = QString::fromUtf8(p.readAllStandardOutput());
            QVERIFY2(p.exitCode() == 0 && out.contains(format == "gpx" ? "tracks" : "POINT"),
                     qPrintable(out.left(2000) + p.readAllStandardError()));
        }
        int points = 0;
        for (const auto& m : QRegularExpression(R"(POINT \(([-0-9.]+) ([-0-9.]+)\))").globalMatch(out)) {
            const GeoPoint read{m.captured(2).toDouble(), m.captured(1).toDouble()};
            points += std::any_of(content.fixes.begin(), content.fixes.end(), [&](const auto& f) {
                return std::abs(read.latitude - f.second.position.latitude) < 1e-7 &&
                       std::abs(read.longitude - f.second.position.longitude) < 1e-7;
            });
        }
        QCOMPARE(points, 3);
        QCOMPARE(QJsonDocument::fromJson(BearingExport::geoJson(content))["formatVersion"].toInt(),
                 BearingExport::kVersion);
    }
};

QTEST_GUILESS_MAIN(TestBearings)
#include "tst_bearings.moc"
