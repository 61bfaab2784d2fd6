// Payload position decoding: a coordinate block and a payload, both arbitrary. The bit reader is
// checked against a plain bit-by-bit reading.
#include "utils/GpsFormat.h"

#include <cstdlib>
#include <cstring>

using OrviaGonioManager::Utils::GpsCoordinate_t;
using OrviaGonioManager::Utils::GpsFormat;

namespace {

// Bit b of the payload, MSB first; the caller keeps b inside it.
unsigned bitAt(const QByteArray& payload, quint64 b)
{
    return (uchar(payload.at(qsizetype(b / 8))) >> (7 - b % 8)) & 1u;
}

quint32 reference(const QByteArray& payload, quint32 start, quint32 count)
{
    if (count == 0 || quint64(start) + count > 8 * quint64(payload.size()))
        return 0;
    quint32 value = 0;
    for (quint64 b = start; b < quint64(start) + count; ++b)
        value = (value << 1) | bitAt(payload, b);
    return value;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    GpsCoordinate_t c;
    constexpr size_t kBlock = 9 * sizeof(qint32);
    if (size < kBlock)
        return 0;
    std::memcpy(&c, data, kBlock); // nine consecutive qint32
    const QByteArray payload(reinterpret_cast<const char*>(data + kBlock), qsizetype(size - kBlock));

    GpsFormat::decodeCoordinate(payload, c, GpsFormat::kLatitudeLimit);
    GpsFormat::decodeCoordinate(payload, c, GpsFormat::kLongitudeLimit);

    const qint32 pairs[][2] = {{c.signPos, c.signLen}, {c.pos, c.len}, {c.T, c.U}, {c.V, c.W}};
    for (const auto& p : pairs) {
        const quint32 start = quint32(p[0]);
        const quint32 count = quint32(p[1]);
        if (GpsFormat::extractBits(payload, start, count) != reference(payload, start, count))
            std::abort();
    }
    return 0;
}
