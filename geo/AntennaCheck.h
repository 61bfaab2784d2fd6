#pragma once

#include "geo/Circular.h"
#include "geo/Geodesy.h"

#include <optional>
#include <vector>

namespace OrviaGonioManager::Geo {

// The whole chain (antenna, cable, compass, angle offset) checked against platforms that send
// their own position: the measured bearing minus the true one to the payload position.
struct AntennaSample
{
    GeoPoint receiver;
    GeoPoint platform;
    double measured = 0.0; // true bearing derived from the message
};

struct AntennaCheck
{
    static constexpr int kMinSamples = 10;
    static constexpr double kMaxSpread = 15.0; // degrees

    CircularStats error; // of measured minus true, its mean in (-180, 180] as meanError()
    std::optional<int> suggestedOffset;

    double meanError() const { return wrap180(error.mean); }

    // currentOffset is the "Angle offset" of the software setup.
    static AntennaCheck compute(const std::vector<AntennaSample>& samples, int currentOffset);
};

} // namespace OrviaGonioManager::Geo
