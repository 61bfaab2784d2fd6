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

#include <algorithm>
#include <cmath>

namespace OrviaGonioManager::Geo::BearingExport {

namespace {

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

// RFC 7946 3.1.9: geometries crossing the antimeridian are cut there, so that tools do not draw
// them round the globe.
QJsonObject lineGeometry(const std::vector<GeoPoint>& line)
{
    const auto pieces = splitLine(line);
    if (pieces.size() <= 1)
        return {{"type", "LineString"}, {"coordinates", positions(pieces.empty() ? line : pieces[0])}};
    QJsonArray parts;
    for (const auto& piece : pieces)
        parts.append(positions(piece));
    return {{"type", "MultiLineString"}, {"coordinates", parts}};
}

QJsonObject polygonGeometry(const std::vector<GeoPoint>& ring)
{
    const auto parts = splitRing(ring);
    if (parts.size() == 1)
        return {{"type", "Polygon"}, {"coordinates", QJsonArray{positions(parts[0])}}};
    QJsonArray polygons;
    for (const auto& part : parts)
        polygons.append(QJsonArray{positions(part)});
    return {{"type", "MultiPolygon"}, {"coordinates", polygons}};
}

bool crosses(const GeoPoint& a, const GeoPoint& b)
{
    return std::abs(b.longitude - a.longitude) > 180.0;
}

bool same(const GeoPoint& a, const GeoPoint& b)
{
    return a.latitude == b.latitude && a.longitude == b.longitude;
}

void append(std::vector<GeoPoint>& points, const GeoPoint& p)
{
    if (points.empty() || !same(points.back(), p))
        points.push_back(p);
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

void kmlLine(QXmlStreamWriter& x, const std::vector<GeoPoint>& line)
{
    auto pieces = splitLine(line);
    if (pieces.empty())
        pieces.push_back(line);
    if (pieces.size() > 1)
        x.writeStartElement("MultiGeometry");
    for (const auto& piece : pieces) {
        x.writeStartElement("LineString");
        writeCoordinates(x, piece);
        x.writeEndElement();
    }
    if (pieces.size() > 1)
        x.writeEndElement();
}

void kmlPolygon(QXmlStreamWriter& x, const std::vector<GeoPoint>& ring)
{
    const auto parts = splitRing(ring);
    if (parts.size() > 1)
        x.writeStartElement("MultiGeometry");
    for (const auto& part : parts) {
        x.writeStartElement("Polygon");
        x.writeStartElement("outerBoundaryIs");
        x.writeStartElement("LinearRing");
        writeCoordinates(x, part);
        x.writeEndElement();
        x.writeEndElement();
        x.writeEndElement();
    }
    if (parts.size() > 1)
        x.writeEndElement();
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

std::vector<GeoPoint> bearingLine(const GeoPoint& from, double bearing, double metres, int segments)
{
    std::vector<GeoPoint> line;
    for (int i = 0; i <= segments; ++i)
        line.push_back(Geodesy::destination(from, bearing, metres * i / segments));
    return line;
}

std::vector<std::vector<GeoPoint>> splitLine(const std::vector<GeoPoint>& line)
{
    std::vector<std::vector<GeoPoint>> pieces(1);
    for (size_t i = 0; i < line.size(); ++i) {
        if (i > 0 && crosses(line[i - 1], line[i])) {
            const GeoPoint &a = line[i - 1], &b = line[i];
            const double edge = a.longitude > 0 ? 180.0 : -180.0;
            // b moved by 360 degrees to a's side, so that the segment is continuous.
            const double t = (edge - a.longitude) / (b.longitude + 2 * edge - a.longitude);
            const double latitude = a.latitude + t * (b.latitude - a.latitude);
            append(pieces.back(), {latitude, edge});
            pieces.push_back({{latitude, -edge}});
        }
        append(pieces.back(), line[i]);
    }
    // A line starting or ending on the antimeridian leaves a piece of one point.
    pieces.erase(std::remove_if(pieces.begin(), pieces.end(), [](const auto& p) { return p.size() < 2; }),
                 pieces.end());
    return pieces;
}

std::vector<std::vector<GeoPoint>> splitRing(const std::vector<GeoPoint>& ring)
{
    bool crossing = false;
    for (size_t i = 1; i < ring.size(); ++i)
        crossing = crossing || crosses(ring[i - 1], ring[i]);
    if (!crossing)
        return {ring};
    // Longitudes made continuous: the ring becomes one shape reaching past +180 or -180.
    std::vector<GeoPoint> u = ring;
    double low = u[0].longitude, high = low;
    for (size_t i = 1; i < u.size(); ++i) {
        u[i].longitude = u[i - 1].longitude + wrap180(ring[i].longitude - ring[i - 1].longitude);
        low = std::min(low, u[i].longitude);
        high = std::max(high, u[i].longitude);
    }
    // Round a pole the ring does not come back to its start and has no side to be cut into.
    if (std::abs(u.back().longitude - u.front().longitude) > 1e-9 || (high > 180.0 && low < -180.0))
        return {ring};
    const double edge = high > 180.0 ? 180.0 : -180.0;
    const auto beyond = [edge](const GeoPoint& p) { return (p.longitude - edge) * edge; };
    // Clipped on each side of the edge (Sutherland-Hodgman against one line).
    std::vector<GeoPoint> here, there; // this side of the edge, and beyond it
    for (size_t i = 0; i + 1 < u.size(); ++i) {
        const GeoPoint &p = u[i], &q = u[i + 1];
        const double sp = beyond(p), sq = beyond(q);
        if (sp <= 0)
            append(here, p);
        if (sp >= 0)
            append(there, p);
        if ((sp < 0 && sq > 0) || (sp > 0 && sq < 0)) {
            const double t = (edge - p.longitude) / (q.longitude - p.longitude);
            const GeoPoint x{p.latitude + t * (q.latitude - p.latitude), edge};
            append(here, x);
            append(there, x);
        }
    }
    for (GeoPoint& p : there)
        p.longitude = p.longitude == edge ? -edge : p.longitude - 2 * edge;
    std::vector<std::vector<GeoPoint>> parts;
    for (std::vector<GeoPoint>* part : {&here, &there}) {
        if (!part->empty() && same(part->back(), part->front()))
            part->pop_back();
        if (part->size() < 3)
            continue; // only touches the edge
        part->push_back(part->front());
        parts.push_back(std::move(*part));
    }
    return parts;
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
        features.append(feature(polygonGeometry(ellipseRing(f)), fixProperties("ellipse95", p, f)));
    }
    forEachBearing(c, [&](const BearingSet::Platform& p, const Bearing& b, const Fix* f, size_t line) {
        features.append(feature(lineGeometry(bearingLine(b.receiver, b.trueBearing, c.rangeMetres)),
                                bearingProperties(p, b, f, line)));
    });
    if (c.set->track().size() >= 2)
        features.append(feature(lineGeometry(c.set->track()), {{"kind", "track"}}));
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
        kmlPolygon(x, ellipseRing(f));
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
        kmlLine(x, bearingLine(b.receiver, b.trueBearing, c.rangeMetres));
        x.writeEndElement();
    });
    if (c.set->track().size() >= 2) {
        kmlPlacemark(x, QStringLiteral("Track"), QString());
        kmlLine(x, c.set->track());
        x.writeEndElement();
    }
    x.writeEndDocument();
    return out;
}

QByteArray gpx(const BearingSet& set)
{
    return gpx(Content{&set, set.fixes()});
}

QByteArray gpx(const Content& c)
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
    for (const auto& [id, p] : c.set->platforms()) {
        const auto fit = c.fixes.find(id);
        if (fit != c.fixes.end() && fit->second.ok) {
            const Fix& f = fit->second;
            point("wpt", f.position);
            x.writeTextElement("name", p.name());
            x.writeTextElement("desc", QStringLiteral("fix; 95%: %1 m x %2 m at %3 deg")
                                           .arg(f.semiMajor, 0, 'f', 1)
                                           .arg(f.semiMinor, 0, 'f', 1)
                                           .arg(f.orientation, 0, 'f', 1));
            x.writeTextElement("type", "fix");
            x.writeEndElement();
        }
        // A platform that stays put sends the same position again and again: one waypoint for it.
        const GeoPoint* last = nullptr;
        for (const Bearing& b : p.bearings)
            if (b.payload && !(last && same(*last, *b.payload))) {
                last = &*b.payload;
                point("wpt", *b.payload);
                x.writeTextElement("time", isoTime(b.time));
                x.writeTextElement("name", p.name());
                x.writeTextElement("type", "payload");
                x.writeEndElement();
            }
    }
    x.writeStartElement("trk");
    x.writeTextElement("name", "Receiver");
    x.writeStartElement("trkseg");
    for (const GeoPoint& p : c.set->track()) {
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
