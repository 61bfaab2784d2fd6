#pragma once

#include "com/GnxLink.h"

#include <QByteArray>
#include <QString>

#include <functional>

namespace OrviaGonioManager::Utils {

// Decoders of the receiver's flash memory dumps, free of any object or signal so that they can be
// tested and fuzzed alone. Header bit fields are packed least-significant bit first.
class FlashDecoder
{
public:
    using RecordSink = std::function<void(const Com::OrviaRxMessage_t&)>;

    static constexpr int kPlatformHeaderSize = 22; // per-platform dump (first generation)
    static constexpr int kDumpHeaderSize = 26;     // single dump (later generations)

    // Per-platform dump: records carry no identifier, the caller gives it. Each record is handed to
    // sink in dump order; a truncated record throws after the earlier ones were handed on.
    static void decodePlatformDump(quint32 platformIndex, const QString& platformId, const QByteArray& dump,
                                   const RecordSink& sink);
    // Single dump of all platforms, ended by a byte with its top bit set.
    static void decodeDump(const QByteArray& dump, const RecordSink& sink);

    // One header each; bytes beyond size read as zero. payloadBytes receives the payload size that
    // follows the header.
    static Com::OrviaRxMessage_t decodePlatformHeader(const uchar* header, qsizetype size, int& payloadBytes);
    static Com::OrviaRxMessage_t decodeDumpHeader(const uchar* header, qsizetype size, int& payloadBytes);

    // Unsigned field of width bits (at most 32) from bit first; bits beyond size read as zero.
    static quint32 readBits(const uchar* data, qsizetype size, int first, int width);
    // Two's complement field: valueBits bits from first, the sign bit right after them.
    static qint32 readSigned(const uchar* data, qsizetype size, int first, int valueBits);

    // A 28-bit identifier as 7 upper-case hexadecimal digits.
    static QString platformIdText(quint32 platformId);
};

} // namespace OrviaGonioManager::Utils
