#include "geo/Homing.h"

#include "geo/Circular.h"

#include <cmath>

namespace OrviaGonioManager::Geo {

Homing Homing::compute(const BearingSet& set, const BearingSet::Platform& platform, const Fix* fix)
{
    Homing h;
    for (const auto& [id, p] : set.platforms())
        for (const Bearing& b : p.bearings)
            if (b.receiverValid && (!h.receiver || b.time >= h.receiver->time))
                h.receiver = Receiver{b.receiver, b.time, b.heading};
    if (!h.receiver)
        return h;
    const std::optional<double> heading = h.receiver->heading;
    const Bearing* latest = nullptr;
    for (const Bearing& b : platform.bearings)
        if (b.payload && (!latest || b.time >= latest->time))
            latest = &b;
    if (latest)
        h.toPayload = leg(h.receiver->position, *latest->payload, heading);
    if (fix && fix->ok)
        h.toFix = leg(h.receiver->position, fix->position, heading);
    return h;
}

Homing::Leg Homing::leg(const GeoPoint& from, const GeoPoint& to, std::optional<double> heading)
{
    Leg l;
    l.metres = Geodesy::distance(from, to);
    l.bearing = Geodesy::bearing(from, to);
    if (heading)
        l.relative = wrap180(l.bearing - *heading);
    return l;
}

QString Homing::distanceText(double metres, Unit unit)
{
    switch (unit) {
    case Miles:
        return QStringLiteral("%1 miles")
            .arg(QString::number(metres / 1609.344, 'f', metres < 16093.44 ? 2 : 1));
    case NauticalMiles:
        return QStringLiteral("%1 NM").arg(QString::number(metres / 1852.0, 'f', metres < 18520.0 ? 2 : 1));
    case Kilometres:
    default:
        if (metres < 1000.0)
            return QStringLiteral("%1 m").arg(std::lround(metres));
        return QStringLiteral("%1 km").arg(QString::number(metres / 1000.0, 'f', metres < 10000.0 ? 2 : 1));
    }
}

QString Homing::bearingText(const Leg& leg)
{
    QString text = QStringLiteral("%1°").arg(std::lround(leg.bearing) % 360, 3, 10, QLatin1Char('0'));
    if (!leg.relative)
        return text;
    const long turn = std::lround(*leg.relative);
    if (turn == 0)
        return text + QStringLiteral(", dead ahead");
    return text + QStringLiteral(", %1° %2")
                      .arg(std::labs(turn))
                      .arg(turn > 0 ? QStringLiteral("right") : QStringLiteral("left"));
}

} // namespace OrviaGonioManager::Geo
