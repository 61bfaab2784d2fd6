#pragma once

#include "geo/BearingSet.h"

#include <QString>

#include <optional>

namespace OrviaGonioManager::Geo {

// Where to go from the receiver's latest position to reach a platform: the way an operator homes
// on a transmitter, towards its latest payload position or its fix.
struct Homing
{
    enum Unit
    {
        Kilometres = 0, // the order of the software setup's distance units
        Miles,
        NauticalMiles,
    };

    struct Leg
    {
        double metres = 0.0;
        double bearing = 0.0;           // true, from north, [0, 360)
        std::optional<double> relative; // to the receiver's heading, (-180, 180]: + to the right
    };

    struct Receiver
    {
        GeoPoint position;
        qint64 time = 0;
        double heading = 0.0; // as the latest message with a position gave it
    };

    std::optional<Receiver> receiver;
    std::optional<Leg> toPayload; // the platform's latest payload position
    std::optional<Leg> toFix;

    // The receiver's latest known position over every platform's messages, and the legs to this
    // platform. The heading counts when the message with that position gave one (a receiver
    // without a position gives no heading worth steering by).
    static Homing compute(const BearingSet& set, const BearingSet::Platform& platform, const Fix* fix);
    static Leg leg(const GeoPoint& from, const GeoPoint& to, std::optional<double> heading);

    // "3.42 km", "2.13 miles", "1.85 NM": three significant digits, metres below 1 km.
    static QString distanceText(double metres, Unit unit);
    // "057°", with "12° right" / "12° left" / "dead ahead" relative to the heading when known.
    static QString bearingText(const Leg& leg);
};

} // namespace OrviaGonioManager::Geo
