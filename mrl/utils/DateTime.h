#pragma once

#include <QDateTime>
#include <QMetaType>
#include <QtGlobal>

namespace MRL::Utils {

// A UTC instant with millisecond resolution. The receiver counts days as Modified Julian Days
// (40587 is 1970-01-01) plus seconds of the day.
class DateTime
{
public:
    static constexpr qint64 kMjdOffsetMs = 3506716800000LL; // ms from MJD 0 to 1970-01-01
    static constexpr qint64 kDayMs = 86400000LL;
    static constexpr quint64 kMjdEpoch = 40587;

    DateTime() = default;
    explicit DateTime(qint64 msecsSinceEpoch) : ms_(msecsSinceEpoch) {}
    explicit DateTime(const QDateTime& dt) : ms_(dt.toMSecsSinceEpoch()) {}

    static DateTime fromMjd(quint64 mjd, double secondsOfDay);
    static DateTime fromUtc(int year, int month, int day, int hour, int minute, double second);

    qint64 toMSecsSinceEpoch() const { return ms_; }
    QDateTime toQDateTime() const { return QDateTime::fromMSecsSinceEpoch(ms_, Qt::UTC); }
    quint64 mjd() const;
    double secondsOfDay() const;

    friend bool operator==(const DateTime& a, const DateTime& b) { return a.ms_ == b.ms_; }
    friend bool operator!=(const DateTime& a, const DateTime& b) { return a.ms_ != b.ms_; }
    friend bool operator<(const DateTime& a, const DateTime& b) { return a.ms_ < b.ms_; }
    friend bool operator>(const DateTime& a, const DateTime& b) { return a.ms_ > b.ms_; }
    friend bool operator<=(const DateTime& a, const DateTime& b) { return a.ms_ <= b.ms_; }
    friend bool operator>=(const DateTime& a, const DateTime& b) { return a.ms_ >= b.ms_; }

    // Registers the type under "MRL::Utils::DateTime" so it can travel in queued signals.
    static void registerMetaType();

private:
    qint64 ms_ = 0;
};

} // namespace MRL::Utils

Q_DECLARE_METATYPE(MRL::Utils::DateTime)
