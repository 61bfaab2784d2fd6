// Per-platform flash dumps (first generation). The first input byte picks the identifier (a 7- or
// 5-character text), the next four the platform index; the rest is the dump.
#include "mrl/utils/Exception.h"
#include "utils/FlashDecoder.h"

#include <cstdlib>
#include <cstring>

using OrviaGonioManager::Com::OrviaRxMessage_t;
using OrviaGonioManager::Utils::FlashDecoder;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 5)
        return 0;
    const QString platformId = (data[0] & 1) ? QStringLiteral("1234567") : QStringLiteral("1A2B3");
    quint32 platformIndex = 0;
    std::memcpy(&platformIndex, data + 1, sizeof platformIndex);
    const QByteArray dump(reinterpret_cast<const char*>(data + 5), qsizetype(size - 5));

    qsizetype consumed = 0;
    const auto sink = [&](const OrviaRxMessage_t& m) {
        const int expected = platformId.size() == 7 ? 1 : 0;
        if (m.platformIndex != qint32(platformIndex) || m.platformId != platformId || m.payload.size() > 32 ||
            (m.payload.size() + expected) % 4 != 0 || m.flagBit2 || m.band != 0 || m.extraCode != 0)
            std::abort();
        consumed += FlashDecoder::kPlatformHeaderSize + m.payload.size() + expected;
        if (consumed > dump.size())
            std::abort();
    };
    try {
        FlashDecoder::decodePlatformDump(platformIndex, platformId, dump, sink);
        if (consumed != dump.size()) // a clean end uses every byte
            std::abort();
    } catch (const MRL::Utils::Exception&) {
    }
    return 0;
}
