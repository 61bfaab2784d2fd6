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

    // One header each; bytes beyond size (or beyond the header) read as zero. payloadBytes receives
    // the size of the payload that follows the header.
    static Com::OrviaRxMessage_t decodePlatformHeader(const uchar* header, qsizetype size, int& payloadBytes);
    static Com::OrviaRxMessage_t decodeDumpHeader(const uchar* header, qsizetype size, int& payloadBytes);

    // The longitude field holds 23 bits and a sign, ±139.81°: a receiver further east or west is
    // stored at the limit, so a position there is not where the receiver was.
    static constexpr qint32 kLongitudeMax = (1 << 23) - 1; // 1/60000 degree
    static constexpr qint32 kLongitudeMin = -(1 << 23);
    static bool atLongitudeLimit(double longitude);

    // A 28-bit identifier as 7 upper-case hexadecimal digits.
    static QString platformIdText(quint32 platformId);
};

} // namespace OrviaGonioManager::Utils
