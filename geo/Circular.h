#pragma once

#include <vector>

namespace OrviaGonioManager::Geo {

// Angles in degrees, 0 to north and growing clockwise. Their statistics are circular: an
// arithmetic mean of 359 and 1 would say 180.
struct CircularStats
{
    int count = 0;
    double mean = 0.0;      // 0 to 360; meaningless when resultant is 0
    double resultant = 0.0; // mean resultant length R, 0 (spread all round) to 1 (all equal)
    double deviation = 0.0; // circular standard deviation sqrt(-2 ln R), degrees
};

// [0, 360).
double wrap360(double degrees);
// (-180, 180]: the signed turn from one angle to another.
double wrap180(double degrees);
// The circular mean and spread of the angles, each with its weight (all 1 without weights).
CircularStats circularStats(const std::vector<double>& degrees, const std::vector<double>& weights = {});

} // namespace OrviaGonioManager::Geo
