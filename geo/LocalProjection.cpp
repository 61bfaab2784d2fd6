#include "geo/LocalProjection.h"

#include <GeographicLib/AzimuthalEquidistant.hpp>
#include <GeographicLib/Geodesic.hpp>

namespace OrviaGonioManager::Geo {

namespace {
const GeographicLib::AzimuthalEquidistant& projection()
{
    static const GeographicLib::AzimuthalEquidistant p(GeographicLib::Geodesic::WGS84());
    return p;
}
} // namespace

LocalProjection::XY LocalProjection::forward(const GeoPoint& p) const
{
    XY xy;
    projection().Forward(centre_.latitude, centre_.longitude, p.latitude, p.longitude, xy.x, xy.y);
    return xy;
}

GeoPoint LocalProjection::reverse(const XY& xy) const
{
    GeoPoint p;
    projection().Reverse(centre_.latitude, centre_.longitude, xy.x, xy.y, p.latitude, p.longitude);
    return p;
}

} // namespace OrviaGonioManager::Geo
