#pragma once

#include "geo/BearingSet.h"

#include <QByteArray>

namespace OrviaGonioManager::Geo {

// The bearings, fixes and track as files other tools read. Each says which version of this
// layout it holds; the layouts are described for users.
namespace BearingExport {
constexpr int kVersion = 1;
constexpr int kEllipsePoints = 72;

struct Content
{
    const BearingSet* set = nullptr;
    std::map<QString, Fix> fixes;
    double rangeMetres = 50000.0; // of the bearing lines
};

// Fixes as points and their ellipses as polygons, bearing lines, and the track.
QByteArray geoJson(const Content& c);
// The same in KML.
QByteArray kml(const Content& c);
// The receiver's track, and as waypoints each fix and each payload position (repeats in a row
// once).
QByteArray gpx(const Content& c);
// The same with the set's fixes computed here.
QByteArray gpx(const BearingSet& set);

// The 95% ellipse as a closed ring of points.
std::vector<GeoPoint> ellipseRing(const Fix& fix, int points = kEllipsePoints);
// A bearing line from its point, as a geodesic through segments + 1 points.
constexpr int kLineSegments = 16;
std::vector<GeoPoint> bearingLine(const GeoPoint& from, double bearing, double metres,
                                  int segments = kLineSegments);

// A line cut where a segment crosses the antimeridian (longitudes more than 180 degrees apart):
// each crossing ends a piece at +180 or -180 and starts the next at the other, at the latitude
// interpolated along the segment. One piece when nothing crosses.
std::vector<std::vector<GeoPoint>> splitLine(const std::vector<GeoPoint>& line);
// A closed ring split at the antimeridian into closed rings either side; the ring itself when
// nothing crosses (or when it goes round a pole).
std::vector<std::vector<GeoPoint>> splitRing(const std::vector<GeoPoint>& ring);

// Writes completely or not at all; throws MRL::Utils::Exception naming the file.
void save(const QString& fileName, const QByteArray& data);
} // namespace BearingExport

} // namespace OrviaGonioManager::Geo
