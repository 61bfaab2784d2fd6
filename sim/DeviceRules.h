#pragma once

// What the two halves of Device (state, and the command handlers in DeviceCommands.cpp) share:
// the wire's sizes and the rules its parameters are checked by.
#include "sim/Options.h"

#include <QString>
#include <QStringList>

namespace gnxsim::DeviceRules {

constexpr int maxLineBytes = 4096;
constexpr int rfpBlockBytes = 128;
constexpr int rfpTextBlockBytes = 64;
constexpr qint64 maxRfpLength = 1 << 20;
constexpr qint64 gnx134SlotCapacity = 64 * 1024;
constexpr qint64 gnx234Capacity = 2 * 1024 * 1024;

// Band edges in kHz, B1 to B9.
constexpr int bandLowKHz[9] = {401610, 401530, 401460, 401390, 401310, 401110, 401010, 399970, 399900};

inline bool intIn(const QString& text, qint64 lo, qint64 hi, qint64* out = nullptr)
{
    bool ok = false;
    const qint64 v = text.trimmed().toLongLong(&ok);
    if (!ok || v < lo || v > hi)
        return false;
    if (out)
        *out = v;
    return true;
}

inline QString norm(const QString& text)
{
    return QString::number(text.trimmed().toLongLong());
}

inline bool allEmpty(const QStringList& list, int from = 0)
{
    for (int i = from; i < list.size(); ++i)
        if (!list[i].isEmpty())
            return false;
    return true;
}

inline bool isHexId(const QString& id)
{
    if (id.size() != 5 && id.size() != 7)
        return false;
    for (QChar c : id)
        if (!c.isDigit() && !(c.toUpper() >= QLatin1Char('A') && c.toUpper() <= QLatin1Char('F')))
            return false;
    return true;
}

// Index of the first field of the encipherment tail in an IP parameter list.
inline int tailStart(Model m)
{
    return m == Model::Gnx134 ? 30 : 33;
}

inline int ipCount(Model m)
{
    return m == Model::Gnx134 ? 36 : 39;
}

} // namespace gnxsim::DeviceRules
