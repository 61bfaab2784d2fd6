#include "utils/FlashDecoder.h"

#include "mrl/utils/DateTime.h"
#include "mrl/utils/Exception.h"

#include <QtEndian>

#include <cmath>
#include <cstring>

namespace OrviaGonioManager::Utils {

using Com::OrviaRxMessage_t;

namespace {

const QString kBadHeader = QStringLiteral("Unable to decode flash memory (bad header).");
const QString kBadPayload = QStringLiteral("Unable to decode flash memory (bad payload).");

// The header's calendar fields, validated by the date arithmetic itself.
void setReceptionTime(OrviaRxMessage_t& m, quint32 year, quint32 month, quint32 day, quint32 hour,
                      quint32 minute, quint32 second)
{
    const auto dt = MRL::Utils::DateTime::fromUtc(int(2000 + year), int(month), int(day), int(hour),
                                                  int(minute), double(second));
    m.mjd = dt.mjd();
    m.secondsOfDay = dt.secondsOfDay();
}

// Payload bytes of a record; the first one is a filler in front of the data of 28-bit identifiers.
QByteArray takePayload(const QByteArray& dump, qsizetype start, int bytes, const OrviaRxMessage_t& m)
{
    if (m.platformId.size() == 7 && m.extraCode != 2) {
        ++start;
        --bytes;
    }
    if (bytes <= 0)
        return QByteArray();
    return QByteArray(dump.constData() + start, bytes);
}

// A header copied into a zero-padded buffer: every field read stays inside it, whatever the input.
class HeaderBits
{
public:
    HeaderBits(const uchar* header, qsizetype size, int headerSize)
    {
        if (header && size > 0)
            std::memcpy(buf_, header, size_t(qMin<qsizetype>(size, headerSize)));
    }

    // first + 64 bits must lie inside the buffer: true for any field of either header.
    quint32 bits(int first, int width) const
    {
        const quint64 word = qFromLittleEndian<quint64>(buf_ + first / 8);
        return quint32((word >> (first % 8)) & ((quint64(1) << width) - 1));
    }

    qint32 signedBits(int first, int valueBits) const
    {
        qint64 value = bits(first, valueBits);
        if (bits(first + valueBits, 1))
            value -= qint64(1) << valueBits;
        return qint32(value);
    }

private:
    uchar buf_[FlashDecoder::kDumpHeaderSize + 8] = {};
};

} // namespace

QString FlashDecoder::platformIdText(quint32 platformId)
{
    if (platformId > 0xFFFFFFF) // never from a header's 28 bits
        return QString::number(platformId, 16).toUpper();
    static const char digits[] = "0123456789ABCDEF";
    QChar text[7];
    for (int i = 6; i >= 0; --i, platformId >>= 4)
        text[i] = QLatin1Char(digits[platformId & 0xF]);
    return QString(text, 7);
}

OrviaRxMessage_t FlashDecoder::decodePlatformHeader(const uchar* header, qsizetype size, int& payloadBytes)
{
    const HeaderBits h(header, size, kPlatformHeaderSize);
    OrviaRxMessage_t m;
    m.flagBit0 = h.bits(0, 1);
    m.flagBit1 = h.bits(1, 1);
    m.flagBit2 = false;
    setReceptionTime(m, h.bits(34, 7), h.bits(30, 4), h.bits(25, 5), h.bits(8, 5), h.bits(13, 6),
                     h.bits(19, 6));
    m.frequency = h.bits(41, 29);
    m.direction = quint16(h.bits(70, 9));
    m.v1FlashValue = qint16(h.bits(79, 9));
    m.level = h.signedBits(88, 9);
    m.period = h.bits(98, 16);
    m.gnxLatitude = h.signedBits(114, 24) / 60000.0;
    m.gnxLongitude = h.signedBits(139, 23) / 60000.0; // one bit narrower than the latitude
    m.gnxDirection = h.bits(163, 9);
    payloadBytes = int(h.bits(173, 3) + 1) * 4;
    return m;
}

OrviaRxMessage_t FlashDecoder::decodeDumpHeader(const uchar* header, qsizetype size, int& payloadBytes)
{
    const HeaderBits h(header, size, kDumpHeaderSize);
    OrviaRxMessage_t m;
    m.platformIndex = -1;
    m.band = qint16(h.bits(0, 4));
    m.flagBit0 = h.bits(4, 1);
    m.flagBit1 = h.bits(5, 1);
    m.flagBit2 = h.bits(6, 1);
    m.platformId = platformIdText(h.bits(8, 28));
    setReceptionTime(m, h.bits(66, 7), h.bits(62, 4), h.bits(57, 5), h.bits(40, 5), h.bits(45, 6),
                     h.bits(51, 6));
    m.frequency = h.bits(73, 29);
    m.direction = quint16(h.bits(102, 9));
    m.level = h.signedBits(111, 9);
    m.period = h.bits(121, 16);
    m.gnxLatitude = h.signedBits(137, 24) / 60000.0;
    m.gnxLongitude = h.signedBits(162, 23) / 60000.0; // one bit narrower than the latitude
    m.gnxDirection = h.bits(186, 9);
    m.extraCode = qint16(h.bits(195, 3));
    payloadBytes = int(h.bits(198, 9) + 7) / 8;
    return m;
}

void FlashDecoder::decodePlatformDump(quint32 platformIndex, const QString& platformId,
                                      const QByteArray& dump, const RecordSink& sink)
{
    const qsizetype size = dump.size();
    const auto* const data = reinterpret_cast<const uchar*>(dump.constData());
    qsizetype offset = 0;
    while (offset < size) {
        if (offset + kPlatformHeaderSize >= size)
            throw MRL::Utils::Exception(kBadHeader, 2);
        int payloadBytes = 0;
        OrviaRxMessage_t m = decodePlatformHeader(data + offset, kPlatformHeaderSize, payloadBytes);
        m.platformIndex = qint32(platformIndex);
        m.platformId = platformId;
        const qsizetype next = offset + kPlatformHeaderSize + payloadBytes;
        if (next > size)
            throw MRL::Utils::Exception(kBadPayload, 2);
        m.payload = takePayload(dump, offset + kPlatformHeaderSize, payloadBytes, m);
        sink(m);
        offset = next;
    }
}

void FlashDecoder::decodeDump(const QByteArray& dump, const RecordSink& sink)
{
    const qsizetype size = dump.size();
    const auto* const data = reinterpret_cast<const uchar*>(dump.constData());
    if (size == 0 || (data[0] & 0x80))
        return; // nothing recorded
    qsizetype offset = 0;
    for (;;) {
        if (offset + kDumpHeaderSize >= size)
            throw MRL::Utils::Exception(kBadHeader, 2);
        int payloadBytes = 0;
        OrviaRxMessage_t m = decodeDumpHeader(data + offset, kDumpHeaderSize, payloadBytes);
        // One byte follows every record; the dump must hold it, even after the last record.
        const qsizetype next = offset + kDumpHeaderSize + payloadBytes + 1;
        if (next >= size)
            throw MRL::Utils::Exception(kBadPayload, 2);
        m.payload = takePayload(dump, offset + kDumpHeaderSize, payloadBytes, m);
        sink(m);
        if (data[next] & 0x80)
            return; // end mark, or erased memory
        offset = next;
    }
}

bool FlashDecoder::atLongitudeLimit(double longitude)
{
    const double raw = std::round(longitude * 60000.0);
    return raw >= kLongitudeMax || raw <= kLongitudeMin;
}

} // namespace OrviaGonioManager::Utils
