#include "geo/AntennaCheck.h"

#include <cmath>

namespace OrviaGonioManager::Geo {

AntennaCheck AntennaCheck::compute(const std::vector<AntennaSample>& samples, int currentOffset)
{
    std::vector<double> errors;
    errors.reserve(samples.size());
    for (const AntennaSample& s : samples)
        errors.push_back(s.measured - Geodesy::bearing(s.receiver, s.platform));
    AntennaCheck c;
    c.error = circularStats(errors);
    if (c.error.count >= kMinSamples && c.error.deviation < kMaxSpread)
        c.suggestedOffset = int(std::lround(wrap360(currentOffset - c.meanError()))) % 360;
    return c;
}

} // namespace OrviaGonioManager::Geo
