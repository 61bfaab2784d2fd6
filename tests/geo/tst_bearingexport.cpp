// The exports across the antimeridian, read back by GDAL, and a GPX waypoint for every platform.
#include "geo/BearingExport.h"
#include "utils/RxTableModel.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QXmlStreamReader>

#include <cmath>

using namespace OrviaGonioManager::Geo;
using OrviaGonioManager::Utils::RxTableModel;

namespace {

const GeoPoint kCentre{71.0, 179.95};

RxTableModel::Row row(const QString& id, int second, const GeoPoint& at, double direction,
                      std::optional<GeoPoint> payload = {})
{
    RxTableModel::Row r;
    r.message.platformId = id;
    r.message.mjd = 61000;
    r.message.secondsOfDay = second;
    r.message.flagBit0 = true;
    r.message.gnxLatitude = at.latitude;
    r.message.gnxLongitude = at.longitude;
    r.message.direction = quint16(std::lround(direction) % 360);
    r.payloadPosition = bool(payload);
    r.payloadLatitude = payload ? payload->latitude : 0.0;
    r.payloadLongitude = payload ? payload->longitude : 0.0;
    return r;
}

// A loop of 24 points at 71°N round a platform on the antimeridian, each bearing towards it.
void loop(RxTableModel& model, BearingSet& set)
{
    std::vector<RxTableModel::Row> rows;
    for (int i = 0; i < 24; ++i) {
        const GeoPoint at = Geodesy::destination(kCentre, i * 15.0, 20000);
        rows.push_back(row("AAAAA", i * 10, at, Geodesy::bearing(at, kCentre)));
    }
    model.addRows(std::move(rows));
    set.rebuild(model);
}

Fix fixAt(const GeoPoint& p)
{
    Fix f;
    f.ok = true;
    f.position = p;
    f.semiMajor = 8000;
    f.semiMinor = 3000;
    f.orientation = 80;
    return f;
}

// Every run of positions (a line, a ring, a part of a Multi*) in v, however deep.
void runs(const QJsonValue& v, QList<QJsonArray>& out)
{
    if (v.isObject()) {
        for (const QJsonValue& x : v.toObject())
            runs(x, out);
        return;
    }
    const QJsonArray a = v.toArray();
    if (a.at(0).toArray().at(0).isDouble())
        out.append(a);
    else
        for (const QJsonValue& x : a)
            runs(x, out);
}

// The same from KML's coordinates; none when the XML is broken.
void kmlRuns(const QByteArray& kml, QList<QJsonArray>& out)
{
    QXmlStreamReader x(kml);
    while (!x.atEnd())
        if (x.readNext() == QXmlStreamReader::StartElement && x.name() == QLatin1String("coordinates")) {
            out.append(QJsonArray());
            for (const QString& p : x.readElementText().split(' ', Qt::SkipEmptyParts))
                out.back().append(
                    QJsonArray{p.section(',', 0, 0).toDouble(), p.section(',', 1, 1).toDouble()});
        }
    if (x.hasError())
        out.clear();
}

QString firstJump(const QList<QJsonArray>& lines)
{
    for (const QJsonArray& line : lines)
        for (qsizetype i = 1; i < line.size(); ++i) {
            const double a = line[i - 1].toArray().at(0).toDouble(), b = line[i].toArray().at(0).toDouble();
            if (std::abs(b - a) > 180.0 || std::abs(b) > 180.0)
                return QStringLiteral("%1 to %2").arg(a).arg(b);
        }
    return {};
}

} // namespace

class TestBearingExport : public QObject
{
    Q_OBJECT

private slots:
    void antimeridian_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<QStringList>("types"); // geometries ogrinfo must report
        QTest::newRow("GeoJSON") << "geojson" << QStringList{"MULTILINESTRING", "MULTIPOLYGON", "POINT"};
        QTest::newRow("KML") << "kml" << QStringList{"MULTILINESTRING", "MULTIPOLYGON", "POINT"};
    }
    void antimeridian()
    {
        QFETCH(QString, format);
        QFETCH(QStringList, types);
        RxTableModel model;
        BearingSet set;
        loop(model, set);
        QCOMPARE(set.track().size(), size_t(24));
        const BearingExport::Content c{&set, {{"AAAAA", fixAt({71.0, 179.9})}}, 50000};
        const QByteArray data = format == "geojson" ? BearingExport::geoJson(c) : BearingExport::kml(c);
        QList<QJsonArray> lines;
        if (format == "geojson")
            runs(QJsonDocument::fromJson(data).object()["features"], lines);
        else
            kmlRuns(data, lines);
        QVERIFY2(firstJump(lines).isEmpty(), qPrintable(firstJump(lines)));
        QVERIFY(lines.size() > 27); // the lines were cut, not left out

        const QString ogrinfo = QStandardPaths::findExecutable("ogrinfo");
        if (ogrinfo.isEmpty())
            QSKIP("ogrinfo (gdal-bin) is not installed");
        QTemporaryDir dir;
        const QString path = dir.filePath("bearings." + format);
        BearingExport::save(path, data);
        QProcess p;
        p.start(ogrinfo, {"-ro", "-al", "-geom=SUMMARY", path});
        QVERIFY(p.waitForFinished(60000));
        const QString out = QString::fromUtf8(p.readAllStandardOutput() + p.readAllStandardError());
        QVERIFY2(p.exitCode() == 0 && !out.contains("ERROR"), qPrintable(out.left(3000)));
        // The fix, its ellipse, 24 bearings and the track.
        QVERIFY2(out.contains("Feature Count: 27"), qPrintable(out.left(3000)));
        for (const QString& type : types)
            QVERIFY2(
                out.contains(QRegularExpression("^  " + type + " ", QRegularExpression::MultilineOption)),
                qPrintable(type));
    }

    void ellipse_data()
    {
        QTest::addColumn<double>("longitude");
        QTest::addColumn<int>("parts");
        QTest::newRow("179.9°E") << 179.9 << 2;
        QTest::newRow("179.9°W") << -179.9 << 2;
        QTest::newRow("179°E, clear of it") << 179.0 << 1;
    }
    void ellipse()
    {
        QFETCH(double, longitude);
        QFETCH(int, parts);
        const QJsonObject g = [&] {
            RxTableModel model;
            BearingSet set;
            loop(model, set);
            const BearingExport::Content c{&set, {{"AAAAA", fixAt({71.0, longitude})}}, 50000};
            const QJsonArray features =
                QJsonDocument::fromJson(BearingExport::geoJson(c)).object()["features"].toArray();
            return features[1].toObject()["geometry"].toObject();
        }();
        QCOMPARE(g["type"].toString(), parts == 1 ? "Polygon" : "MultiPolygon");
        QList<QJsonArray> rings;
        runs(g["coordinates"], rings);
        QCOMPARE(rings.size(), parts);
        QSet<double> edges;
        for (const QJsonArray& r : rings) {
            QVERIFY(r.size() >= 4);
            QCOMPARE(r.first(), r.last());
            for (const QJsonValue& p : r)
                if (std::abs(p.toArray().at(0).toDouble()) == 180.0)
                    edges.insert(p.toArray().at(0).toDouble());
        }
        QCOMPARE(edges.size(), parts == 1 ? 0 : 2);
    }

    // One platform with a fix and no payload, one with payload positions (a repeat) and no fix.
    void gpxWaypoints()
    {
        RxTableModel model;
        std::vector<RxTableModel::Row> rows{row("11111", 0, {43.6, 1.3}, 10),
                                            row("22222", 10, {43.6, 1.31}, 20, GeoPoint{43.7, 1.4}),
                                            row("22222", 20, {43.6, 1.32}, 20, GeoPoint{43.7, 1.4}),
                                            row("22222", 30, {43.6, 1.33}, 20, GeoPoint{43.71, 1.41})};
        model.addRows(std::move(rows));
        BearingSet set;
        set.rebuild(model);
        const QByteArray data = BearingExport::gpx({&set, {{"11111", fixAt({43.65, 1.35})}}});
        QXmlStreamReader x(data);
        QStringList waypoints; // name/type
        int trackPoints = 0;
        while (!x.atEnd())
            if (x.readNext() == QXmlStreamReader::StartElement && x.name() == QLatin1String("wpt")) {
                QString name, type;
                while (x.readNextStartElement()) {
                    const QString what = x.name().toString();
                    const QString text = x.readElementText(QXmlStreamReader::SkipChildElements);
                    if (what == "name")
                        name = text;
                    else if (what == "type")
                        type = text;
                }
                waypoints << name + "/" + type;
            } else if (x.isStartElement() && x.name() == QLatin1String("trkpt")) {
                ++trackPoints;
            }
        QVERIFY2(!x.hasError(), qPrintable(x.errorString()));
        QCOMPARE(waypoints, (QStringList{"11111/fix", "22222/payload", "22222/payload"}));
        QCOMPARE(trackPoints, 4);
    }
};

QTEST_GUILESS_MAIN(TestBearingExport)
#include "tst_bearingexport.moc"
