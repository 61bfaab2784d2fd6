#include "geo/Geodesy.h"

#include "geo/Circular.h"

#include <GeographicLib/Geodesic.hpp>

namespace OrviaGonioManager::Geo::Geodesy {

using GeographicLib::Geodesic;

double bearing(const GeoPoint& from, const GeoPoint& to)
{
    double s12 = 0, azi1 = 0, azi2 = 0;
    Geodesic::WGS84().Inverse(from.latitude, from.longitude, to.latitude, to.longitude, s12, azi1, azi2);
    return wrap360(azi1);
}

double distance(const GeoPoint& from, const GeoPoint& to)
{
    double s12 = 0;
    Geodesic::WGS84().Inverse(from.latitude, from.longitude, to.latitude, to.longitude, s12);
    return s12;
}

GeoPoint destination(const GeoPoint& from, double azimuth, double metres)
{
    GeoPoint p;
    Geodesic::WGS84().Direct(from.latitude, from.longitude, azimuth, metres, p.latitude, p.longitude);
    return p;
}

} // namespace OrviaGonioManager::Geo::Geodesy
