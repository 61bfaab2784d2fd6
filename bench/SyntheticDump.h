#pragma once

// A single flash dump (later receivers) of random but well-formed records, as large as wanted:
// beyond what one receiver's memory holds, for the benchmarks of what follows a flash read.
#include "utils/FlashDecoder.h"

#include <QByteArray>
#include <QRandomGenerator>

inline void putBits(QByteArray& h, int first, int width, quint64 value)
{
    for (int i = 0; i < width; ++i) {
        const int k = first + i;
        if ((value >> i) & 1u)
            h[k / 8] = char(h[k / 8] | (1 << (k % 8)));
    }
}

inline QByteArray syntheticDump(int records, quint32 seed)
{
    QRandomGenerator rng(seed);
    QByteArray dump;
    for (int r = 0; r < records; ++r) {
        QByteArray h(OrviaGonioManager::Utils::FlashDecoder::kDumpHeaderSize, '\0');
        const int bits = 200 + int(rng.bounded(56)); // 25 to 32 payload bytes
        putBits(h, 0, 4, rng.bounded(9));
        putBits(h, 4, 3, rng.bounded(8));
        putBits(h, 8, 28, rng.bounded(0x10000000u));
        putBits(h, 40, 5, rng.bounded(24));
        putBits(h, 45, 6, rng.bounded(60));
        putBits(h, 51, 6, rng.bounded(60));
        putBits(h, 57, 5, 1 + rng.bounded(28));
        putBits(h, 62, 4, 1 + rng.bounded(12));
        putBits(h, 66, 7, 20 + rng.bounded(10));
        putBits(h, 73, 29, 401600000u + rng.bounded(100000));
        putBits(h, 102, 9, rng.bounded(360));
        putBits(h, 111, 10, quint64(-120 - int(rng.bounded(20))) & 0x3FF);
        putBits(h, 121, 16, 60 + rng.bounded(60));
        putBits(h, 137, 25, quint64(qint64(rng.bounded(10800000)) - 5400000) & 0x1FFFFFF);
        putBits(h, 162, 24, quint64(qint64(rng.bounded(16000000)) - 8000000) & 0xFFFFFF);
        putBits(h, 186, 9, rng.bounded(360));
        putBits(h, 198, 9, quint64(bits));
        dump += h;
        for (int i = 0; i < (bits + 7) / 8 + 1; ++i)
            dump += char(rng.bounded(256));
        dump[dump.size() - 1] = 0; // the byte after a record
    }
    dump += char(0xFF);
    return dump;
}
