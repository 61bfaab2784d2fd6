#include "utils/CoordinateText.h"

#include <cmath>

namespace OrviaGonioManager::Utils::CoordinateText {

namespace {

// Rounded once to the last shown unit, so that 59.999 minutes carry into the degrees.
QString sexagesimal(double degrees, qint64 unitsPerDegree, bool withSeconds)
{
    const qint64 units = std::llround(std::fabs(degrees) * double(unitsPerDegree));
    const QString sign = degrees < 0 && units != 0 ? QStringLiteral("-") : QString();
    const qint64 whole = units / unitsPerDegree;
    const qint64 rest = units % unitsPerDegree;
    if (withSeconds) // units are seconds
        return QString::fromUtf8("%1%2°%3'%4\"")
            .arg(sign)
            .arg(whole)
            .arg(rest / 60, 2, 10, QLatin1Char('0'))
            .arg(rest % 60, 2, 10, QLatin1Char('0'));
    // units are hundredths of a minute
    return QString::fromUtf8("%1%2°%3.%4'")
        .arg(sign)
        .arg(whole)
        .arg(rest / 100, 2, 10, QLatin1Char('0'))
        .arg(rest % 100, 2, 10, QLatin1Char('0'));
}

} // namespace

QString format(double degrees, Com::GnxLink::CoordType_t type)
{
    // Far beyond any coordinate: no sexagesimal form.
    constexpr double kLargest = 1e12;
    if (!std::isfinite(degrees) || std::fabs(degrees) > kLargest || type == Com::GnxLink::COORDTYPE_DEG)
        return QString::number(degrees, 'f', 5);
    if (type == Com::GnxLink::COORDTYPE_DEGMINSEC)
        return sexagesimal(degrees, 6000, false);
    return sexagesimal(degrees, 3600, true);
}

} // namespace OrviaGonioManager::Utils::CoordinateText
