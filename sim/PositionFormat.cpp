#include "sim/PositionFormat.h"

#include "sim/BitPack.h"

#include <QStringList>
#include <cmath>

namespace gnxsim {

CoordinateField CoordinateField::fromValues(const QList<qint32>& nine)
{
    CoordinateField f;
    f.signPos = nine.value(0);
    f.signLen = nine.value(1);
    f.pos = nine.value(2);
    f.len = nine.value(3);
    f.t = nine.value(4);
    f.u = nine.value(5);
    f.v = nine.value(6);
    f.w = nine.value(7);
    f.ty = nine.value(8);
    return f;
}

int CoordinateField::endBit() const
{
    int end = 0;
    if (signLen > 0 && signPos >= 0)
        end = signPos + signLen;
    if (len > 0 && pos >= 0)
        end = qMax(end, pos + len);
    return end;
}

QString PositionFormat::toVtlLine() const
{
    QStringList f{name, type, manufacturer, description, QString::number(payloadLength)};
    for (qint32 v : lat.values())
        f << QString::number(v);
    for (qint32 v : lon.values())
        f << QString::number(v);
    f << QString::number(encryptionType) << QString::number(polynom, 16) << QString::number(crcPos)
      << QString::number(crcLen) << QString::number(dataPos) << QString::number(dataLen)
      << QString::number(indexPos) << QString::number(gpsCheck ? 1 : 0);
    return f.join(',') + '#';
}

int PositionFormat::payloadBytes() const
{
    const int bits = qMax(qMax(lat.endBit(), lon.endBit()), int(payloadLength));
    return qMax(1, (bits + 7) / 8);
}

static PositionFormat make(const char* name, const char* type, const char* maker, const char* description,
                           qint32 payloadLength, CoordinateField lat, CoordinateField lon)
{
    PositionFormat f;
    f.name = QString::fromLatin1(name);
    f.type = QString::fromLatin1(type);
    f.manufacturer = QString::fromLatin1(maker);
    f.description = QString::fromLatin1(description);
    f.payloadLength = payloadLength;
    f.lat = lat;
    f.lon = lon;
    f.dataLen = (payloadLength + 7) / 8;
    return f;
}

const QList<PositionFormat>& PositionFormat::builtins()
{
    static const QList<PositionFormat> formats = [] {
        QList<PositionFormat> list;
        // Raw hundredths of a degree from an offset, after an 8-bit index field.
        PositionFormat centi =
            make("ORV-GPS-CENTIDEG", "Drifter", "Alcyon Marine", "Hundredths of degree with offset", 40,
                 {0, 0, 8, 15, 600, 1, -5400000, 1, 0}, {0, 0, 23, 16, 600, 1, -10800000, 1, 0});
        centi.gpsCheck = true;
        centi.indexPos = 0;
        list << centi;
        // For 28-bit identifiers: the identifier's byte comes first, tenths of a minute with sign bits.
        PositionFormat minutes =
            make("ORV-GPS-MINUTES-28", "Tag", "Kestrel Telemetry", "Tenths of minute for 28-bit identifiers",
                 72, {8, 1, 9, 22, 10, 1, 0, 1, 0}, {31, 1, 32, 23, 10, 1, 0, 1, 0});
        list << minutes;
        // Sign and magnitude in thousandths of a minute.
        PositionFormat sign = make("ORV-GPS-SIGNED", "Buoy", "Nordbuoy", "Sign and magnitude", 64,
                                   {0, 1, 1, 23, 1, 1, 0, 1, 0}, {24, 1, 25, 24, 1, 1, 0, 1, 0});
        list << sign;
        // Wrapped values: above the range means negative.
        PositionFormat twos = make("ORV-GPS-TWOS", "Float", "Ferrant Systems", "Wrapped negative values", 56,
                                   {0, 0, 0, 24, 1, 1, 0, 1, 1}, {0, 0, 24, 25, 1, 1, 0, 1, 1});
        twos.encryptionType = 1;
        twos.polynom = 0x1021;
        twos.crcPos = 49;
        twos.crcLen = 7;
        list << twos;
        return list;
    }();
    return formats;
}

QByteArray PositionFormat::builtinsVtlFile()
{
    QByteArray out = QByteArray::number(builtins().size()) + '\n';
    for (const PositionFormat& f : builtins())
        out += f.toVtlLine().toUtf8() + '\n';
    return out;
}

static bool readable(const QByteArray& payload, qint32 start, qint32 count)
{
    const qint64 s = start, n = count;
    return n != 0 && s + n <= 8 * qint64(payload.size()) && s < s + n && s >= 0;
}

static quint32 readField(const QByteArray& payload, qint32 start, qint32 count)
{
    quint32 v = 0;
    for (qint32 i = 0; i < count; ++i)
        v = (v << 1) | quint32(BitPack::getMsb(payload, start + i, 1));
    return v;
}

double decodeCoordinate(const QByteArray& payload, const CoordinateField& f, int limitDegrees)
{
    double sign = 1.0;
    if (readable(payload, f.signPos, f.signLen))
        sign = double(readField(payload, f.signPos, f.signLen)) * -2.0 + 1.0;
    double value = 0.0;
    if (readable(payload, f.pos, f.len))
        value = readField(payload, f.pos, f.len);
    double x = sign * value;
    x = (double(f.t) / double(f.u)) * x;
    x = (double(f.v) / double(f.w)) + x;
    if (f.ty != 0 && x > double(limitDegrees) * 60000.0)
        x -= double(limitDegrees) * 120000.0;
    return x;
}

bool encodeCoordinate(QByteArray& payload, const CoordinateField& f, qint64 value, int limitDegrees)
{
    const bool hasSign = f.signLen > 0 && readable(payload, f.signPos, f.signLen);
    const bool hasValue = f.len > 0 && readable(payload, f.pos, f.len);
    const double offset = f.w != 0 ? double(f.v) / double(f.w) : 0.0;
    const double scale = (f.t != 0 && f.u != 0) ? double(f.t) / double(f.u) : 0.0;
    bool exact = true;
    double target = double(value) - offset;
    int sign = 1;
    if (target < 0) {
        if (hasSign)
            sign = -1;
        else if (f.ty != 0)
            target += double(limitDegrees) * 120000.0;
    }
    if (hasSign)
        BitPack::putMsb(payload, f.signPos, f.signLen, sign < 0 ? 1 : 0);
    if (!hasValue)
        return scale == 0.0;
    double raw = scale != 0.0 ? std::round(target / (sign * scale)) : 0.0;
    const int width = qMin(int(f.len), 32);
    const double maxRaw = std::ldexp(1.0, width) - 1.0;
    if (raw < 0) {
        raw = 0;
        exact = false;
    } else if (raw > maxRaw) {
        raw = maxRaw;
        exact = false;
    }
    BitPack::putMsb(payload, f.pos, f.len, quint64(raw));
    return exact;
}

} // namespace gnxsim
