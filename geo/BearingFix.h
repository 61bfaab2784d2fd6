#pragma once

#include "geo/Geodesy.h"

#include <QString>

#include <vector>

namespace OrviaGonioManager::Geo {

// One line of bearing: where it was taken and the true bearing (from north) measured there.
struct BearingLine
{
    GeoPoint from;
    double bearing = 0.0;
    bool use = true; // false: left out by the user
};

// A transmitter's position estimated from bearings taken at several points.
struct Fix
{
    enum Status
    {
        Used,
        Outlier,  // its residual was beyond what Gaussian errors would give
        Excluded, // left out by the user
    };

    bool ok = false;
    QString reason; // why there is no fix
    GeoPoint position;
    double semiMajor = 0.0; // 95% error ellipse, metres
    double semiMinor = 0.0;
    double orientation = 0.0; // azimuth of the major axis, [0, 180)
    double cep = 0.0;         // metres, 50%
    int used = 0;
    int outliers = 0;
    double rms = 0.0;              // degrees, over the bearings used
    std::vector<double> residuals; // degrees, measured minus the bearing to the fix, per line
    std::vector<Status> status;    // per line
};

namespace BearingFix {
constexpr int kMinPoints = 3;
constexpr double kMinSpread = 20.0;     // degrees between the lines where they cross
constexpr double kConfidence = 0.95;    // of the ellipse
constexpr double kOutlierRisk = 0.01;   // chance of leaving out any bearing of Gaussian data
constexpr double kMaxRange = 2000000.0; // metres, geodesic, from a point to the fix

// The position that minimises the sum of squared angular residuals (measured bearing minus the
// geodesic azimuth to the position), by Gauss-Newton from the plain intersection. A bearing is left
// out when its studentised residual is beyond the 1% family-wise Student t quantile for the number
// of bearings; left-out bearings are tested again as the fix moves.
Fix solve(const std::vector<BearingLine>& lines);

// The Student t quantile t such that P(|T| > t) = tail with dof degrees of freedom.
double studentT(double tail, int dof);
} // namespace BearingFix

} // namespace OrviaGonioManager::Geo
