#pragma once

#include <QByteArray>
#include <QtGlobal>

// Builds flash dump headers field by field: bit k is bit (k mod 8) of byte k / 8.
class BitWriter
{
public:
    explicit BitWriter(int bytes) : data_(bytes, '\0') {}

    void put(int first, int width, quint64 value)
    {
        for (int i = 0; i < width; ++i)
            setBit(first + i, (value >> i) & 1u);
    }

    // Two's complement: valueBits bits, then the sign bit.
    void putSigned(int first, int valueBits, qint64 value)
    {
        put(first, valueBits + 1, quint64(value) & ((quint64(1) << (valueBits + 1)) - 1));
    }

    QByteArray bytes() const { return data_; }

private:
    void setBit(int k, bool on)
    {
        const char mask = char(1u << (k % 8));
        data_[k / 8] = on ? char(data_[k / 8] | mask) : char(data_[k / 8] & ~mask);
    }

    QByteArray data_;
};
