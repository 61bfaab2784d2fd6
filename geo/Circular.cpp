#include "geo/Circular.h"

#include <QtMath>

#include <cmath>
#include <limits>

namespace OrviaGonioManager::Geo {

double wrap360(double degrees)
{
    const double r = std::fmod(degrees, 360.0);
    return r < 0 ? (r + 360.0 >= 360.0 ? 0.0 : r + 360.0) : r;
}

double wrap180(double degrees)
{
    const double r = wrap360(degrees);
    return r > 180.0 ? r - 360.0 : r;
}

CircularStats circularStats(const std::vector<double>& degrees, const std::vector<double>& weights)
{
    CircularStats s;
    double c = 0, sn = 0, total = 0;
    for (size_t i = 0; i < degrees.size(); ++i) {
        const double w = i < weights.size() ? weights[i] : 1.0;
        c += w * std::cos(qDegreesToRadians(degrees[i]));
        sn += w * std::sin(qDegreesToRadians(degrees[i]));
        total += w;
    }
    s.count = int(degrees.size());
    if (total <= 0)
        return s;
    s.resultant = std::min(1.0, std::hypot(c, sn) / total);
    s.mean = s.resultant > 0 ? wrap360(qRadiansToDegrees(std::atan2(sn, c))) : 0.0;
    s.deviation = s.resultant > 0 ? qRadiansToDegrees(std::sqrt(-2.0 * std::log(s.resultant)))
                                  : std::numeric_limits<double>::infinity();
    return s;
}

} // namespace OrviaGonioManager::Geo
