#include "geo/TileMath.h"

#include <GeographicLib/Constants.hpp>

#include <algorithm>
#include <cmath>

namespace OrviaGonioManager::Geo::TileMath {

namespace {

constexpr double kPi = 3.14159265358979323846;

double worldSize(double zoom)
{
    return kTileSize * std::exp2(zoom);
}

int clampZoom(int z)
{
    return std::clamp(z, 0, kMaxZoom);
}

// Mercator y from 0 (north edge) to 1 (south edge); held there rather than at kMaxLatitude, whose
// digits stop just short of the edge.
double unitY(double latitude)
{
    const double phi = std::clamp(latitude, -90.0, 90.0) * kPi / 180.0;
    return std::clamp(0.5 - std::asinh(std::tan(phi)) / (2.0 * kPi), 0.0, 1.0);
}

double latitudeOfUnitY(double v)
{
    return std::atan(std::sinh(kPi * (1.0 - 2.0 * v))) * 180.0 / kPi;
}

// Longitude to [0, 1), the world's west edge at 0.
double unitX(double longitude)
{
    double u = (longitude + 180.0) / 360.0;
    u -= std::floor(u);
    return u < 1.0 ? u : 0.0; // -1e-17 + 1 rounds to 1
}

// The columns (or rows) [first, last] that the span [from, to] of world units overlaps at n tiles
// a side: an edge on a tile boundary does not bring in the tile beyond it.
std::pair<int, int> span(double from, double to, int n)
{
    const int first = std::clamp(int(std::floor(from * n)), 0, n - 1);
    const int last = std::clamp(int(std::ceil(to * n)) - 1, first, n - 1);
    return {first, last};
}

struct Cover
{
    std::pair<int, int> rows;
    // One range, or two when the box crosses the antimeridian.
    std::vector<std::pair<int, int>> columns;
};

// Longitude to [0, 1] keeping 180 as the east edge, so that a box ending there stays whole.
double unitEast(double longitude)
{
    return longitude == 180.0 ? 1.0 : unitX(longitude);
}

bool cover(double south, double west, double north, double east, int z, Cover* out)
{
    if (!std::isfinite(south) || !std::isfinite(west) || !std::isfinite(north) || !std::isfinite(east))
        return false;
    const int n = 1 << clampZoom(z);
    out->rows = span(unitY(std::max(south, north)), unitY(std::min(south, north)), n);
    const bool wholeWorld = east - west >= 360.0;
    const double w = unitX(west);
    const double e = unitEast(east);
    out->columns.clear();
    if (wholeWorld) {
        out->columns.push_back({0, n - 1});
    } else if (w <= e) {
        out->columns.push_back(span(w, e, n));
    } else {
        const auto left = span(w, 1.0, n);
        const auto right = span(0.0, e, n);
        if (right.second >= left.first - 1)
            out->columns.push_back({0, n - 1});
        else
            out->columns = {left, right};
    }
    return true;
}

} // namespace

bool isValid(const TileId& t)
{
    if (t.z < 0 || t.z > kMaxZoom)
        return false;
    const qint64 n = qint64(1) << t.z;
    return t.x >= 0 && t.y >= 0 && t.x < n && t.y < n;
}

QPointF worldPixel(const GeoPoint& p, double zoom)
{
    const double size = worldSize(zoom);
    double x = unitX(p.longitude) * size;
    if (x >= size) // rounding at the east edge
        x = 0.0;
    return {x, unitY(p.latitude) * size};
}

GeoPoint fromWorldPixel(QPointF pixel, double zoom)
{
    const double size = worldSize(zoom);
    double u = pixel.x() / size;
    u -= std::floor(u);
    const double v = std::clamp(pixel.y() / size, 0.0, 1.0);
    return {latitudeOfUnitY(v), u * 360.0 - 180.0};
}

TileId tileAt(const GeoPoint& p, int z)
{
    z = clampZoom(z);
    const int n = 1 << z;
    const int x = std::min(int(std::floor(unitX(p.longitude) * n)), n - 1);
    const int y = std::clamp(int(std::floor(unitY(p.latitude) * n)), 0, n - 1);
    return {z, x, y};
}

GeoPoint tileNorthWest(const TileId& t)
{
    const double n = std::exp2(t.z);
    return {latitudeOfUnitY(t.y / n), t.x / n * 360.0 - 180.0};
}

std::vector<TileId> tilesCovering(double south, double west, double north, double east, int z)
{
    std::vector<TileId> tiles;
    Cover c;
    if (!cover(south, west, north, east, z, &c))
        return tiles;
    z = clampZoom(z);
    for (int y = c.rows.first; y <= c.rows.second; ++y)
        for (const auto& [first, last] : c.columns)
            for (int x = first; x <= last; ++x)
                tiles.push_back({z, x, y});
    return tiles;
}

qint64 tileCount(double south, double west, double north, double east, int minZoom, int maxZoom)
{
    qint64 total = 0;
    Cover c;
    for (int z = clampZoom(minZoom); z <= clampZoom(maxZoom); ++z) {
        if (!cover(south, west, north, east, z, &c))
            return 0;
        qint64 columns = 0;
        for (const auto& [first, last] : c.columns)
            columns += last - first + 1;
        total += columns * (c.rows.second - c.rows.first + 1);
    }
    return total;
}

double metresPerPixel(double latitude, double zoom)
{
    // The radius of the parallel on the ellipsoid: a pixel spans 1/(256·2^zoom) of its length.
    const double a = GeographicLib::Constants::WGS84_a();
    const double f = GeographicLib::Constants::WGS84_f();
    const double e2 = f * (2.0 - f);
    const double phi = std::clamp(latitude, -kMaxLatitude, kMaxLatitude) * kPi / 180.0;
    const double s = std::sin(phi);
    const double radius = a * std::cos(phi) / std::sqrt(1.0 - e2 * s * s);
    return 2.0 * kPi * radius / worldSize(zoom);
}

} // namespace OrviaGonioManager::Geo::TileMath
