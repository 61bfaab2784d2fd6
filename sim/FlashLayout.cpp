#include "sim/FlashLayout.h"

#include "sim/BitPack.h"

namespace gnxsim {

namespace FlashLayout {

using BitPack::putLsb;

static quint64 twos(qint64 value, int valueBits)
{
    // value bits followed by the sign bit
    const qint64 lo = -(qint64(1) << valueBits), hi = (qint64(1) << valueBits) - 1;
    return quint64(qBound(lo, value, hi)) & ((quint64(1) << (valueBits + 1)) - 1);
}

static quint64 bounded(qint64 value, int bits)
{
    return quint64(qBound<qint64>(0, value, (qint64(1) << bits) - 1));
}

static void putDate(QByteArray& h, int first, const QDateTime& time)
{
    const QDate d = time.date();
    const QTime t = time.time();
    putLsb(h, first, 5, bounded(t.hour(), 5));
    putLsb(h, first + 5, 6, bounded(t.minute(), 6));
    putLsb(h, first + 11, 6, bounded(t.second(), 6));
    putLsb(h, first + 17, 5, bounded(d.day(), 5));
    putLsb(h, first + 22, 4, bounded(d.month(), 4));
    putLsb(h, first + 26, 7, bounded(d.year() - 2000, 7));
}

QByteArray gnx134Record(const RxReport& r)
{
    const int size = qBound(1, int(r.payload.size()), gnx134MaxPayload);
    const int code = (size + 3) / 4 - 1;
    QByteArray h(gnx134HeaderBytes, '\0');
    putLsb(h, 0, 1, r.flags & 1);
    putLsb(h, 1, 1, (r.flags >> 1) & 1);
    putDate(h, 8, r.time);
    putLsb(h, 41, 29, bounded(r.frequency, 29));
    putLsb(h, 70, 9, bounded(r.direction, 9));
    putLsb(h, 79, 9, bounded(r.v1FlashValue, 9));
    putLsb(h, 88, 10, twos(r.level, 9));
    putLsb(h, 98, 16, bounded(r.period, 16));
    putLsb(h, 114, 25, twos(r.latitude, 24));
    putLsb(h, 139, 24, twos(r.longitude, 23));
    putLsb(h, 163, 9, bounded(r.gnxDirection, 9));
    putLsb(h, 173, 3, quint64(code));
    QByteArray payload = r.payload.left((code + 1) * 4);
    payload.append(QByteArray((code + 1) * 4 - payload.size(), '\0'));
    return h + payload;
}

QByteArray gnx234Record(const RxReport& r)
{
    const QByteArray payload = r.payload.left(gnx234MaxPayload);
    QByteArray h(gnx234HeaderBytes, '\0');
    putLsb(h, 0, 4, bounded(r.band, 4));
    putLsb(h, 4, 1, r.flags & 1);
    putLsb(h, 5, 1, (r.flags >> 1) & 1);
    putLsb(h, 6, 1, (r.flags >> 2) & 1);
    putLsb(h, 8, 28, r.platformId.toUInt(nullptr, 16) & 0x0FFFFFFF);
    putDate(h, 40, r.time);
    putLsb(h, 73, 29, bounded(r.frequency, 29));
    putLsb(h, 102, 9, bounded(r.direction, 9));
    putLsb(h, 111, 10, twos(r.level, 9));
    putLsb(h, 121, 16, bounded(r.period, 16));
    putLsb(h, 137, 25, twos(r.latitude, 24));
    putLsb(h, 162, 24, twos(r.longitude, 23));
    putLsb(h, 186, 9, bounded(r.gnxDirection, 9));
    putLsb(h, 195, 3, bounded(r.extraCode, 3));
    putLsb(h, 198, 9, quint64(payload.size() * 8));
    QByteArray record = h + payload;
    quint8 check = 0;
    for (char c : record)
        check ^= quint8(c);
    record.append(char(check & 0x7F));
    return record;
}

} // namespace FlashLayout

} // namespace gnxsim
