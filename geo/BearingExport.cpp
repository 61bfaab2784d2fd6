#include "geo/BearingExport.h"

#include "geo/Circular.h"
#include "mrl/utils/Exception.h"
#include "utils/OutputFile.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QXmlStreamWriter>

#include <QtMath>

#include <cmath>

namespace OrviaGonioManager::Geo::BearingExport {

namespace {

constexpr int kLinePoints = 16;
const char* const kFormat = "orvia-bearings";

QString isoTime(qint64 ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(Qt::ISODateWithMs);
}

QJsonArray position(const GeoPoint& p)
{
    return {p.longitude, p.latitude}; // GeoJSON puts longitude first
}

QJsonArray positions(const std::vector<GeoPoint>& points)
{
    QJsonArray a;
    for (const GeoPoint& p : points)
        a.append(position(p));
    return a;
}

QJsonObject feature(const QJsonObject& geometry, QJsonObject properties)
{
    return {{"type", "Feature"}, {"geometry", geometry}, {"properties", properties}};
}

QJsonObject fixProperties(const QString& kind, const BearingSet::Platform& p, const Fix& f)
{
    return {{"kind", kind},
            {"platformId", p.id},
            {"label", p.label},
            {"semiMajorM", f.semiMajor},
            {"semiMinorM", f.semiMinor},
            {"orientationDeg", f.orientation},
            {"cepM", f.cep},
            {"bearingsUsed", f.used},
            {"bearingsLeftOut", f.outliers},
            {"rmsDeg", f.rms}};
}

QJsonObject bearingProperties(const BearingSet::Platform& p, const Bearing& b, const Fix* f, size_t line)
{
    QString status = b.use ? QStringLiteral("used") : QStringLiteral("excluded");
    if (b.use && f && line < f->status.size() && f->status[line] == Fix::Outlier)
        status = QStringLiteral("outlier");
    return {{"kind", "bearing"},
            {"platformId", p.id},
            {"label", p.label},
            {"time", isoTime(b.time)},
            {"directionDeg", b.direction},
            {"headingDeg", b.heading},
            {"directionReference", b.relative ? "heading" : "north"},
            {"trueBearingDeg", b.trueBearing},
            {"status", status}};
}

// Calls f(platform, bearing, its fix or null, its index among the platform's lines).
template <typename F> void forEachBearing(const Content& c, F f)
{
    for (const auto& [id, p] : c.set->platforms()) {
        const auto fit = c.fixes.find(id);
        const Fix* fix = fit == c.fixes.end() ? nullptr : &fit->second;
        size_t line = 0;
        for (const Bearing& b : p.bearings)
            if (b.receiverValid)
                f(p, b, fix, line++);
    }
}

void writeCoordinates(QXmlStreamWriter& x, const std::vector<GeoPoint>& points)
{
    QStringList parts;
    for (const GeoPoint& p : points)
        parts << QStringLiteral("%1,%2").arg(p.longitude, 0, 'f', 9).arg(p.latitude, 0, 'f', 9);
    x.writeTextElement("coordinates", parts.join(QLatin1Char(' ')));
}

void kmlPlacemark(QXmlStreamWriter& x, const QString& name, const QString& description)
{
    x.writeStartElement("Placemark");
    x.writeTextElement("name", name);
    if (!description.isEmpty())
        x.writeTextElement("description", description);
}

} // namespace

std::vector<GeoPoint> ellipseRing(const Fix& fix, int points)
{
    std::vector<GeoPoint> ring;
    const double a = qDegreesToRadians(fix.orientation);
    for (int i = 0; i <= points; ++i) {
        const double t = 2 * M_PI * (i % points) / points;
        // Along the major axis (azimuth a) and across it, in metres east and north.
        const double u = fix.semiMajor * std::cos(t), v = fix.semiMinor * std::sin(t);
        const double east = u * std::sin(a) + v * std::cos(a), north = u * std::cos(a) - v * std::sin(a);
        ring.push_back(Geodesy::destination(fix.position, qRadiansToDegrees(std::atan2(east, north)),
                                            std::hypot(east, north)));
    }
    return ring;
}

std::vector<GeoPoint> bearingLine(const GeoPoint& from, double bearing, double metres)
{
    std::vector<GeoPoint> line;
    for (int i = 0; i <= kLinePoints; ++i)
        line.push_back(Geodesy::destination(from, bearing, metres * i / kLinePoints));
    return line;
}

QByteArray geoJson(const Content& c)
{
    QJsonArray features;
    for (const auto& [id, f] : c.fixes) {
        if (!f.ok)
            continue;
        const BearingSet::Platform& p = c.set->platforms().at(id);
        features.append(
            feature({{"type", "Point"}, {"coordinates", position(f.position)}}, fixProperties("fix", p, f)));
        features.append(feature({{"type", "Polygon"}, {"coordinates", QJsonArray{positions(ellipseRing(f))}}},
                                fixProperties("ellipse95", p, f)));
    }
    forEachBearing(c, [&](const BearingSet::Platform& p, const Bearing& b, const Fix* f, size_t line) {
        features.append(
            feature({{"type", "LineString"},
                     {"coordinates", positions(bearingLine(b.receiver, b.trueBearing, c.rangeMetres))}},
                    bearingProperties(p, b, f, line)));
    });
    if (c.set->track().size() >= 2)
        features.append(feature({{"type", "LineString"}, {"coordinates", positions(c.set->track())}},
                                {{"kind", "track"}}));
    const QJsonObject doc{{"type", "FeatureCollection"},
                          {"format", kFormat},
                          {"formatVersion", kVersion},
                          {"features", features}};
    return QJsonDocument(doc).toJson(QJsonDocument::Indented);
}

QByteArray kml(const Content& c)
{
    QByteArray out;
    QXmlStreamWriter x(&out);
    x.setAutoFormatting(true);
    x.writeStartDocument();
    x.writeStartElement("kml");
    x.writeDefaultNamespace("http://www.opengis.net/kml/2.2");
    x.writeStartElement("Document");
    x.writeTextElement("name", "Bearings");
    x.writeTextElement("description", QStringLiteral("%1 %2").arg(QLatin1String(kFormat)).arg(kVersion));
    for (const auto& [id, f] : c.fixes) {
        if (!f.ok)
            continue;
        const QString name = c.set->platforms().at(id).name();
        const QString text =
            QStringLiteral("95%: %1 m x %2 m at %3 deg; CEP %4 m; %5 bearings used, %6 left out; RMS %7 deg")
                .arg(f.semiMajor, 0, 'f', 1)
                .arg(f.semiMinor, 0, 'f', 1)
                .arg(f.orientation, 0, 'f', 1)
                .arg(f.cep, 0, 'f', 1)
                .arg(f.used)
                .arg(f.outliers)
                .arg(f.rms, 0, 'f', 2);
        kmlPlacemark(x, QStringLiteral("Fix %1").arg(name), text);
        x.writeStartElement("Point");
        writeCoordinates(x, {f.position});
        x.writeEndElement();
        x.writeEndElement();
        kmlPlacemark(x, QStringLiteral("Ellipse 95% %1").arg(name), text);
        x.writeStartElement("Polygon");
        x.writeStartElement("outerBoundaryIs");
        x.writeStartElement("LinearRing");
        writeCoordinates(x, ellipseRing(f));
        x.writeEndElement();
        x.writeEndElement();
        x.writeEndElement();
        x.writeEndElement();
    }
    forEachBearing(c, [&](const BearingSet::Platform& p, const Bearing& b, const Fix* f, size_t line) {
        const QJsonObject o = bearingProperties(p, b, f, line);
        kmlPlacemark(x, QStringLiteral("Bearing %1 %2").arg(p.name(), o["time"].toString()),
                     QStringLiteral("direction %1 deg, heading %2 deg, from %3: true bearing %4 deg (%5)")
                         .arg(b.direction)
                         .arg(b.heading)
                         .arg(o["directionReference"].toString())
                         .arg(b.trueBearing)
                         .arg(o["status"].toString()));
        x.writeStartElement("LineString");
        writeCoordinates(x, bearingLine(b.receiver, b.trueBearing, c.rangeMetres));
        x.writeEndElement();
        x.writeEndElement();
    });
    if (c.set->track().size() >= 2) {
        kmlPlacemark(x, QStringLiteral("Track"), QString());
        x.writeStartElement("LineString");
        writeCoordinates(x, c.set->track());
        x.writeEndElement();
        x.writeEndElement();
    }
    x.writeEndDocument();
    return out;
}

QByteArray gpx(const BearingSet& set)
{
    QByteArray out;
    QXmlStreamWriter x(&out);
    x.setAutoFormatting(true);
    x.writeStartDocument();
    x.writeStartElement("gpx");
    x.writeDefaultNamespace("http://www.topografix.com/GPX/1/1");
    x.writeAttribute("version", "1.1");
    x.writeAttribute("creator", "Orvia Gonio Manager");
    x.writeStartElement("metadata");
    x.writeTextElement("desc", QStringLiteral("%1 %2").arg(QLatin1String(kFormat)).arg(kVersion));
    x.writeEndElement();
    const auto point = [&](const char* element, const GeoPoint& p) {
        x.writeStartElement(element);
        x.writeAttribute("lat", QString::number(p.latitude, 'f', 9));
        x.writeAttribute("lon", QString::number(p.longitude, 'f', 9));
    };
    for (const auto& [id, p] : set.platforms())
        for (const Bearing& b : p.bearings)
            if (b.payload) {
                point("wpt", *b.payload);
                x.writeTextElement("time", isoTime(b.time));
                x.writeTextElement("name", p.name());
                x.writeEndElement();
            }
    x.writeStartElement("trk");
    x.writeTextElement("name", "Receiver");
    x.writeStartElement("trkseg");
    for (const GeoPoint& p : set.track()) {
        point("trkpt", p);
        x.writeEndElement();
    }
    x.writeEndElement();
    x.writeEndElement();
    x.writeEndDocument();
    return out;
}

void save(const QString& fileName, const QByteArray& data)
{
    Utils::OutputFile file(fileName);
    if (!file.open() || file.device()->write(data) != data.size() || !file.commit())
        throw MRL::Utils::Exception(
            QStringLiteral("Unable to write %1: %2").arg(fileName, file.errorString()), 2);
}

} // namespace OrviaGonioManager::Geo::BearingExport
