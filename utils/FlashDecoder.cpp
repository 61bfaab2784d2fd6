#include "utils/FlashDecoder.h"

#include "mrl/utils/DateTime.h"
#include "mrl/utils/Exception.h"

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

} // namespace

quint32 FlashDecoder::readBits(const uchar* data, qsizetype size, int first, int width)
{
    if (first < 0 || width <= 0 || !data)
        return 0;
    if (width > 32)
        width = 32;
    const qsizetype firstByte = first / 8;
    const qsizetype lastByte = (qsizetype(first) + width - 1) / 8; // at most five bytes on
    quint64 acc = 0;
    for (qsizetype i = firstByte; i <= lastByte && i < size; ++i)
        acc |= quint64(data[i]) << (8 * (i - firstByte));
    acc >>= first % 8;
    return quint32(acc & ((quint64(1) << width) - 1));
}

qint32 FlashDecoder::readSigned(const uchar* data, qsizetype size, int first, int valueBits)
{
    qint64 value = readBits(data, size, first, valueBits);
    if (readBits(data, size, first + valueBits, 1))
        value -= qint64(1) << valueBits;
    return qint32(value);
}

QString FlashDecoder::platformIdText(quint32 platformId)
{
    if (platformId > 0xFFFFFFF) // never from a header's 28 bits
        return QString::number(platformId, 16).toUpper();
    static const char digits[] = "0123456789ABCDEF";
    QString text(7, QLatin1Char('0'));
    QChar* const out = text.data();
    for (int i = 6; i >= 0; --i, platformId >>= 4)
        out[i] = QLatin1Char(digits[platformId & 0xF]);
    return text;
}

OrviaRxMessage_t FlashDecoder::decodePlatformHeader(const uchar* h, qsizetype size, int& payloadBytes)
{
    OrviaRxMessage_t m;
    m.flagBit0 = readBits(h, size, 0, 1);
    m.flagBit1 = readBits(h, size, 1, 1);
    m.flagBit2 = false;
    setReceptionTime(m, readBits(h, size, 34, 7), readBits(h, size, 30, 4), readBits(h, size, 25, 5),
                     readBits(h, size, 8, 5), readBits(h, size, 13, 6), readBits(h, size, 19, 6));
    m.frequency = readBits(h, size, 41, 29);
    m.direction = quint16(readBits(h, size, 70, 9));
    m.v1FlashValue = qint16(readBits(h, size, 79, 9));
    m.level = readSigned(h, size, 88, 9);
    m.period = readBits(h, size, 98, 16);
    m.gnxLatitude = readSigned(h, size, 114, 24) / 60000.0;
    m.gnxLongitude = readSigned(h, size, 139, 23) / 60000.0; // one bit narrower than the latitude
    m.gnxDirection = readBits(h, size, 163, 9);
    payloadBytes = int(readBits(h, size, 173, 3) + 1) * 4;
    return m;
}

OrviaRxMessage_t FlashDecoder::decodeDumpHeader(const uchar* h, qsizetype size, int& payloadBytes)
{
    OrviaRxMessage_t m;
    m.platformIndex = -1;
    m.band = qint16(readBits(h, size, 0, 4));
    m.flagBit0 = readBits(h, size, 4, 1);
    m.flagBit1 = readBits(h, size, 5, 1);
    m.flagBit2 = readBits(h, size, 6, 1);
    m.platformId = platformIdText(readBits(h, size, 8, 28));
    setReceptionTime(m, readBits(h, size, 66, 7), readBits(h, size, 62, 4), readBits(h, size, 57, 5),
                     readBits(h, size, 40, 5), readBits(h, size, 45, 6), readBits(h, size, 51, 6));
    m.frequency = readBits(h, size, 73, 29);
    m.direction = quint16(readBits(h, size, 102, 9));
    m.level = readSigned(h, size, 111, 9);
    m.period = readBits(h, size, 121, 16);
    m.gnxLatitude = readSigned(h, size, 137, 24) / 60000.0;
    m.gnxLongitude = readSigned(h, size, 162, 23) / 60000.0; // one bit narrower than the latitude
    m.gnxDirection = readBits(h, size, 186, 9);
    m.extraCode = qint16(readBits(h, size, 195, 3));
    payloadBytes = int(readBits(h, size, 198, 9) + 7) / 8;
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

} // namespace OrviaGonioManager::Utils
