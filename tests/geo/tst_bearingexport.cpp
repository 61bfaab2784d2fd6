// The exports across the antimeridian, read back by GDAL, a GPX waypoint for every platform, and
// receiver positions that a flash record could not hold.
#include "geo/BearingExport.h"
#include "utils/FlashDecoder.h"
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
    r.byNumber.payloadPosition = bool(payload);
    r.byNumber.payloadLatitude = payload.value_or(GeoPoint{}).latitude;
    r.byNumber.payloadLongitude = payload.value_or(GeoPoint{}).longitude;
    return r;
}

// As the table shows the rows.
BearingSet setOf(std::vector<RxTableModel::Row> rows)
{
    RxTableModel model;
    model.addRows(std::move(rows));
    BearingSet set;
    set.rebuild(model);
    return set;
}

// A loop of 24 points at 71°N round a platform on the antimeridian, each bearing towards it.
BearingSet loop()
{
    const GeoPoint centre{71.0, 179.95};
    std::vector<RxTableModel::Row> rows;
    for (int i = 0; i < 24; ++i) {
        const GeoPoint at = Geodesy::destination(centre, i * 15.0, 20000);
        rows.push_back(row("AAAAA", i * 10, at, Geodesy::bearing(at, centre)));
    }
    return setOf(std::move(rows));
}

const auto fixAt = [](const GeoPoint& p) { return Fix{true, {}, p, 8000, 3000, 80, 0, 0, 0, 0, {}, {}}; };

// Every run of positions (a line, a ring, a part of a Multi*) in v, however deep.
QList<QJsonArray> runs(const QJsonValue& v)
{
    const QJsonArray a =
        v.isObject() ? QJsonArray::fromVariantList(v.toObject().toVariantMap().values()) : v.toArray();
    if (a.at(0).toArray().at(0).isDouble())
        return {a};
    QList<QJsonArray> out;
    for (const QJsonValue& x : a)
        out += runs(x);
    return out;
}

// The text of every element so named, in order; none when the XML is broken.
QStringList texts(const QByteArray& xml, const QString& name)
{
    QStringList out;
    QXmlStreamReader x(xml);
    while (!x.atEnd())
        if (x.readNext() == QXmlStreamReader::StartElement && x.name() == name)
            out << x.readElementText(QXmlStreamReader::IncludeChildElements);
    return x.hasError() ? QStringList{} : out;
}

} // namespace

class TestBearingExport : public QObject
{
    Q_OBJECT

private slots:
    // Each with the track, 24 bearings, the fix and its ellipse, split where it crosses.
    void antimeridian_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<double>("longitude"); // of the fix
        QTest::addColumn<int>("parts");        // of its ellipse
        QTest::newRow("GeoJSON, 179.9°E") << "geojson" << 179.9 << 2;
        QTest::newRow("GeoJSON, 179.9°W") << "geojson" << -179.9 << 2;
        QTest::newRow("GeoJSON, 179°E, clear of it") << "geojson" << 179.0 << 1;
        QTest::newRow("KML, 179.9°E") << "kml" << 179.9 << 2;
    }
    void antimeridian()
    {
        QFETCH(QString, format);
        QFETCH(double, longitude);
        QFETCH(int, parts);
        const BearingSet set = loop();
        const BearingExport::Content c{&set, {{"AAAAA", fixAt({71.0, longitude})}}, 50000};
        const QByteArray data = format == "geojson" ? BearingExport::geoJson(c) : BearingExport::kml(c);
        QList<QJsonArray> lines = runs(QJsonDocument::fromJson(data)["features"]);
        if (format == "geojson") {
            const QJsonValue g = QJsonDocument::fromJson(data)["features"][1]["geometry"];
            QCOMPARE(g["type"].toString(), parts == 1 ? "Polygon" : "MultiPolygon");
            const QList<QJsonArray> rings = runs(g["coordinates"]);
            QCOMPARE(rings.size(), parts);
            QSet<double> edges;
            for (const QJsonArray& r : rings) {
                QVERIFY(r.size() >= 4 && r.first() == r.last());
                for (const QJsonValue& p : r)
                    if (std::abs(p[0].toDouble()) == 180.0)
                        edges.insert(p[0].toDouble());
            }
            QCOMPARE(edges.size(), parts == 1 ? 0 : 2);
        }
        for (const QString& c : texts(data, "coordinates")) // "lon,lat lon,lat" as JSON
            lines +=
                QJsonDocument::fromJson(("[[" + c.simplified().replace(' ', "],[") + "]]").toUtf8()).array();
        QVERIFY(lines.size() > 27 && !lines.contains(QJsonArray())); // the lines were cut, not left out
        for (const QJsonArray& line : lines)
            for (qsizetype i = 1; i < line.size(); ++i) {
                const double a = line[i - 1][0].toDouble(), b = line[i][0].toDouble();
                QVERIFY2(std::abs(b - a) <= 180.0 && std::abs(b) <= 180.0,
                         qPrintable(QStringLiteral("%1 to %2").arg(a).arg(b)));
            }

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
        QVERIFY2(p.exitCode() == 0 && !out.contains("ERROR") && out.contains("Feature Count: 27"),
                 qPrintable(out.left(3000)));
        for (const QString type : {"MULTILINESTRING", parts == 1 ? "POLYGON" : "MULTIPOLYGON", "POINT"})
            QVERIFY2(
                out.contains(QRegularExpression("^  " + type + " ", QRegularExpression::MultilineOption)),
                qPrintable(type));
    }

    // One platform with a fix and no payload, one with payload positions (a repeat) and no fix.
    void gpxWaypoints()
    {
        const BearingSet set =
            setOf({row("11111", 0, {43.6, 1.3}, 10), row("22222", 10, {43.6, 1.31}, 20, GeoPoint{43.7, 1.4}),
                   row("22222", 20, {43.6, 1.32}, 20, GeoPoint{43.7, 1.4}),
                   row("22222", 30, {43.6, 1.33}, 20, GeoPoint{43.71, 1.41})});
        const QByteArray data = BearingExport::gpx({&set, {{"11111", fixAt({43.65, 1.35})}}});
        QCOMPARE(texts(data, "wpt").size(), 3);
        QCOMPARE(texts(data, "name"), (QStringList{"11111", "22222", "22222", "Receiver"}));
        QCOMPARE(texts(data, "type"), (QStringList{"fix", "payload", "payload"}));
        QCOMPARE(texts(data, "trkpt").size(), 4);
    }

    // A flash record keeps a receiver east of about 139.81°E at the field's limit: those bearings
    // are marked and kept out of the fix, the track and the antenna check. A live report there is a
    // true position.
    void flashLongitudeLimit()
    {
        const double limit = OrviaGonioManager::Utils::FlashDecoder::kLongitudeMax / 60000.0;
        const GeoPoint platform{35.0, 139.7};
        std::vector<RxTableModel::Row> rows;
        for (int i = 0; i < 12; ++i) {
            const GeoPoint at = Geodesy::destination(platform, i * 30.0, 20000);
            rows.push_back(row("2A1B3", i * 10, at, Geodesy::bearing(at, platform), platform));
        }
        for (int i = 0; i < 4; ++i) {
            const GeoPoint at{35.0 + 0.01 * i, limit};
            rows.push_back(
                row("002A1B3", 200 + i, at, i < 3 ? 0.0 : Geodesy::bearing(at, platform), platform));
            rows.back().flash = i < 3;
        }
        const BearingSet set = setOf(std::move(rows));
        const BearingSet::Platform& p = set.platforms().at("2A1B3");
        QCOMPARE(int(p.bearings.size()), 16);
        QCOMPARE(std::count_if(p.bearings.begin(), p.bearings.end(),
                               [](const Bearing& b) {
                                   return !b.receiverValid &&
                                          b.noPosition == "Longitude at the flash record's limit";
                               }),
                 3);
        const Fix f = set.fix("2A1B3");
        QVERIFY2(f.ok, qPrintable(f.reason));
        QCOMPARE(int(BearingSet::lines(p).size()), 13);
        QCOMPARE(f.used + f.outliers, 13);
        QVERIFY(Geodesy::distance(f.position, platform) < 100); // whole degrees: about 0.13° at 20 km
        QCOMPARE(set.antennaCheck(0).error.count, 13);
        QCOMPARE(texts(BearingExport::gpx(set), "trkpt").size(), 13);
    }
};

QTEST_GUILESS_MAIN(TestBearingExport)
#include "tst_bearingexport.moc"
