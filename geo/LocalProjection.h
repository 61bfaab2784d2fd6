#pragma once

#include "geo/Geodesy.h"

namespace OrviaGonioManager::Geo {

// A flat map around a centre: azimuthal equidistant, so that distances and bearings from the
// centre are true. Metres east (x) and north (y).
class LocalProjection
{
public:
    struct XY
    {
        double x = 0.0;
        double y = 0.0;
    };

    explicit LocalProjection(const GeoPoint& centre = {}) : centre_(centre) {}
    const GeoPoint& centre() const { return centre_; }
    XY forward(const GeoPoint& p) const;
    GeoPoint reverse(const XY& xy) const;

private:
    GeoPoint centre_;
};

} // namespace OrviaGonioManager::Geo
