#pragma once

#include <QMetaType>

namespace OrviaGonioManager::Geo {

// A point on the WGS84 ellipsoid, degrees.
struct GeoPoint
{
    double latitude = 0.0;
    double longitude = 0.0;
};

// Geodesics on WGS84 (GeographicLib): never a flat-earth formula.
namespace Geodesy {
// The azimuth at from of the geodesic to to, [0, 360).
double bearing(const GeoPoint& from, const GeoPoint& to);
// Metres along the geodesic.
double distance(const GeoPoint& from, const GeoPoint& to);
// The point metres away from from along azimuth.
GeoPoint destination(const GeoPoint& from, double azimuth, double metres);
} // namespace Geodesy

} // namespace OrviaGonioManager::Geo

Q_DECLARE_METATYPE(OrviaGonioManager::Geo::GeoPoint)
