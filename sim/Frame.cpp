#include "sim/Frame.h"

namespace gnxsim::Frame {

quint8 xorBytes(const QByteArray& bytes)
{
    quint8 sum = 0;
    for (char c : bytes)
        sum ^= quint8(c);
    return sum;
}

quint8 checksum(const QByteArray& payload)
{
    return quint8(xorBytes(payload) ^ quint8('*'));
}

QByteArray hex2(quint8 value)
{
    static const char digits[] = "0123456789ABCDEF";
    QByteArray out(2, '0');
    out[0] = digits[value >> 4];
    out[1] = digits[value & 0x0F];
    return out;
}

QByteArray frame(const QByteArray& payload)
{
    return '$' + payload + '*' + hex2(checksum(payload)) + "\r\n";
}

QByteArray frameGnx134Quirk(const QByteArray& payload)
{
    return '$' + payload + '*' + hex2(xorBytes(payload.left(qMax(0, int(payload.size()) - 2)))) + "\r\n";
}

QByteArray payloadOf(const QString& mnemonic, const QStringList& params)
{
    QByteArray out = mnemonic.toLatin1();
    if (!params.isEmpty())
        out += ',' + params.join(',').toLatin1();
    return out;
}

static bool isUpperHex(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
}

Parsed parseLine(const QByteArray& line)
{
    Parsed p;
    QByteArray body = line;
    const int star = body.lastIndexOf('*');
    if (body.startsWith('$') && star > 0 && star == body.size() - 3 && isUpperHex(body[star + 1]) &&
        isUpperHex(body[star + 2])) {
        p.framed = true;
        p.payload = body.mid(1, star - 1);
        const quint8 got = quint8(body.mid(star + 1, 2).toUInt(nullptr, 16));
        p.checksumOk = got == checksum(p.payload);
    } else {
        p.payload = body;
    }
    const QStringList fields = QString::fromLatin1(p.payload).split(',');
    p.mnemonic = fields.value(0);
    p.params = fields.mid(1);
    return p;
}

} // namespace gnxsim::Frame
