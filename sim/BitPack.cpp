#include "sim/BitPack.h"

namespace gnxsim::BitPack {

static void setBit(QByteArray& buffer, int byte, int bit, bool on)
{
    if (on)
        buffer[byte] = char(quint8(buffer[byte]) | (1u << bit));
    else
        buffer[byte] = char(quint8(buffer[byte]) & ~(1u << bit));
}

void putLsb(QByteArray& buffer, int firstBit, int width, quint64 value)
{
    for (int i = 0; i < width; ++i) {
        const int k = firstBit + i;
        setBit(buffer, k / 8, k % 8, i < 64 && ((value >> i) & 1u));
    }
}

quint64 getLsb(const QByteArray& buffer, int firstBit, int width)
{
    quint64 value = 0;
    for (int i = 0; i < width && i < 64; ++i) {
        const int k = firstBit + i;
        if ((quint8(buffer[k / 8]) >> (k % 8)) & 1u)
            value |= quint64(1) << i;
    }
    return value;
}

void putMsb(QByteArray& buffer, int firstBit, int width, quint64 value)
{
    for (int i = 0; i < width; ++i) {
        const int b = firstBit + i;
        const int shift = width - 1 - i;
        setBit(buffer, b / 8, 7 - b % 8, shift < 64 && ((value >> shift) & 1u));
    }
}

quint64 getMsb(const QByteArray& buffer, int firstBit, int width)
{
    quint64 value = 0;
    for (int i = 0; i < width; ++i) {
        const int b = firstBit + i;
        value = (value << 1) | ((quint8(buffer[b / 8]) >> (7 - b % 8)) & 1u);
    }
    return value;
}

} // namespace gnxsim::BitPack
