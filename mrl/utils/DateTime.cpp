#include "mrl/utils/DateTime.h"

#include <cmath>

namespace MRL::Utils {

DateTime DateTime::fromMjd(quint64 mjd, double secondsOfDay)
{
    const double ms =
        (double(qint64(mjd) - qint64(kMjdEpoch)) * double(kDayMs)) + 1000.0 * secondsOfDay + 0.5;
    return DateTime(qint64(std::floor(ms)));
}

DateTime DateTime::fromUtc(int year, int month, int day, int hour, int minute, double second)
{
    const QDateTime dt(QDate(year, month, day), QTime(hour, minute), Qt::UTC);
    if (!dt.isValid())
        return DateTime(0);
    return DateTime(dt.toMSecsSinceEpoch() + qint64(std::llround(second * 1000.0)));
}

quint64 DateTime::mjd() const
{
    // Floor division so that instants before MJD 0 do not wrap.
    const qint64 total = ms_ + kMjdOffsetMs;
    qint64 day = total / kDayMs;
    if (total % kDayMs < 0)
        --day;
    return quint64(day);
}

double DateTime::secondsOfDay() const
{
    qint64 rem = (ms_ + kMjdOffsetMs) % kDayMs;
    if (rem < 0)
        rem += kDayMs;
    return double(rem) / 1000.0;
}

void DateTime::registerMetaType()
{
    qRegisterMetaType<DateTime>("MRL::Utils::DateTime");
}

} // namespace MRL::Utils
