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
        Outlier,  // its residual exceeded three times the RMS
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
constexpr double kMinSpread = 20.0;  // degrees between the bearings
constexpr double kConfidence = 0.95; // of the ellipse
constexpr double kOutlierRms = 3.0;

// Weighted least squares on the bearings (each weighted by the inverse square of its distance,
// as Stansfield does), in a gnomonic projection re-centred on the estimate until it settles,
// seeded by the plain intersection. Outliers are left out one round at a time.
Fix solve(const std::vector<BearingLine>& lines);
} // namespace BearingFix

} // namespace OrviaGonioManager::Geo
