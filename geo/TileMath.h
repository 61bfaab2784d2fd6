#pragma once

#include "geo/Geodesy.h"

#include <QHashFunctions>
#include <QMetaType>
#include <QPointF>

#include <vector>

namespace OrviaGonioManager::Geo {

// A map tile in the XYZ scheme: x from the antimeridian eastwards, y from the north.
struct TileId
{
    int z = 0, x = 0, y = 0;
};

inline bool operator==(const TileId& a, const TileId& b)
{
    return a.z == b.z && a.x == b.x && a.y == b.y;
}
inline bool operator!=(const TileId& a, const TileId& b)
{
    return !(a == b);
}
inline size_t qHash(const TileId& t, size_t seed = 0) noexcept
{
    return qHashMulti(seed, t.z, t.x, t.y);
}

// Web Mercator (EPSG:3857) on 256-pixel tiles, as tile servers and MBTiles files cut them. A zoom
// may be fractional for pixels; tiles have whole zooms from 0 to kMaxZoom.
namespace TileMath {
constexpr double kMaxLatitude = 85.0511287798;
constexpr int kTileSize = 256;
// 2^30 tiles a side still fit an int.
constexpr int kMaxZoom = 30;

// True when the tile exists: z in [0, kMaxZoom], x and y in [0, 2^z).
bool isValid(const TileId& tile);

// Pixels from the north-west corner of the world at that zoom: x in [0, 256·2^zoom), longitudes
// taken modulo 360; latitudes beyond ±kMaxLatitude fall on the top or bottom edge.
QPointF worldPixel(const GeoPoint& p, double zoom);
// The inverse; x wraps round the world, y is held to the world's height.
GeoPoint fromWorldPixel(QPointF pixel, double zoom);
// The tile holding p (z held to [0, kMaxZoom]).
TileId tileAt(const GeoPoint& p, int z);
// The tile's north-west corner; x = 2^z or y = 2^z give the east or south edge of the world.
GeoPoint tileNorthWest(const TileId& tile);

// The tiles that overlap the box, north to south and west to east. west > east is a box across
// the antimeridian; latitudes are held to ±kMaxLatitude, and a box of no width or height still
// has the tile it lies in. South and north may come in either order.
std::vector<TileId> tilesCovering(double south, double west, double north, double east, int z);
// How many tiles tilesCovering gives over the zooms, without listing them.
qint64 tileCount(double south, double west, double north, double east, int minZoom, int maxZoom);

// Metres on the ground (WGS84) that a pixel spans east–west at that latitude: what a scale bar
// needs. 156543.03 m at zoom 0 on the equator.
double metresPerPixel(double latitude, double zoom);
} // namespace TileMath

} // namespace OrviaGonioManager::Geo

Q_DECLARE_METATYPE(OrviaGonioManager::Geo::TileId)
