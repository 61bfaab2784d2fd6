#include "com/NprCodec.h"

#include "com/GnxFrame.h"
#include "mrl/utils/DateTime.h"
#include "mrl/utils/Exception.h"

#include <QDateTime>

#include <cmath>

namespace OrviaGonioManager::Com::NprCodec {

namespace {

constexpr double kAngleUnitsPerDegree = 60000.0;
constexpr int kYearBase = 2000;

// Takes the fields from the front; a field that does not parse reads as 0.
class FieldReader
{
public:
    explicit FieldReader(const QStringList& fields) : fields_(fields) {}

    QString text() { return fields_.value(next_++); }
    qint32 int32() { return text().toInt(); }
    quint32 uint32() { return text().toUInt(); }
    quint16 uint16() { return text().toUShort(); }
    qint16 int16() { return text().toShort(); }
    double number() { return text().toDouble(); }

private:
    const QStringList& fields_;
    int next_ = 0;
};

bool isLongId(const QString& platformId)
{
    return platformId.size() == 7;
}

void readDate(FieldReader& in, OrviaRxMessage_t& message)
{
    const int year = kYearBase + in.int32();
    const int month = in.int32();
    const int day = in.int32();
    const int hour = in.int32();
    const int minute = in.int32();
    const int second = in.int32();
    const auto at = MRL::Utils::DateTime::fromUtc(year, month, day, hour, minute, second);
    message.mjd = at.mjd();
    message.secondsOfDay = at.secondsOfDay();
}

QByteArray readPayload(FieldReader& in, const OrviaRxMessage_t& message)
{
    const qint32 bitCount = in.int32();
    QByteArray payload = QByteArray::fromHex(in.text().toLatin1());
    payload.truncate(qMax(0, bitCount / 8));
    // For a 28-bit identifier the device puts the identifier's last byte ahead of the user bits.
    if (isLongId(message.platformId) && message.extraCode != 2 && !payload.isEmpty())
        payload.remove(0, 1);
    return payload;
}

// A field of a bad line may hold any number ("1e25", "nan"): what no 64-bit integer can hold is
// written as the whole number it is, or 0 when it is none.
QString angle(double degrees)
{
    constexpr double kInt64Limit = 9.2e18;
    const double units = degrees * kAngleUnitsPerDegree;
    if (!std::isfinite(units))
        return QStringLiteral("0");
    if (std::fabs(units) >= kInt64Limit)
        return QString::number(units, 'f', 0);
    return QString::number(qRound64(units));
}

} // namespace

int parameterCount(GnxLink::GnxVersion_t version, GnxLink::GnxMessageType_t type)
{
    const bool favourite = type == GnxLink::GNXMSG_NPRF;
    switch (version) {
    case GnxLink::GNX_V1:
        return favourite ? 19 : 17;
    case GnxLink::GNX_V2:
        return favourite ? 20 : 18;
    default:
        return 0;
    }
}

GnxLink::GnxVersion_t versionForCount(GnxLink::GnxMessageType_t type, int count)
{
    for (const auto version : {GnxLink::GNX_V1, GnxLink::GNX_V2}) {
        if (parameterCount(version, type) == count)
            return version;
    }
    return GnxLink::GNX_UNDEFINEDVERSION;
}

QString wrongCountError()
{
    return QStringLiteral("Wrong number of parameters in NPR/NPRF message.");
}

OrviaRxMessage_t parse(GnxLink::GnxVersion_t version, GnxLink::GnxMessageType_t type,
                       const QStringList& params)
{
    const int expected = parameterCount(version, type);
    if (expected == 0 || params.size() != expected)
        throw MRL::Utils::Exception(wrongCountError(), 2);

    const bool v1 = version == GnxLink::GNX_V1;
    const bool favourite = type == GnxLink::GNXMSG_NPRF;
    FieldReader in(params);
    OrviaRxMessage_t message;

    message.platformIndex = (v1 || favourite) ? in.int32() : -1;
    readDate(in, message);
    message.platformId = in.text();
    message.frequency = in.uint32();
    const quint16 flags = in.uint16();
    message.flagBit2 = flags & 0x4;
    message.flagBit1 = flags & 0x2;
    message.flagBit0 = flags & 0x1;
    message.direction = in.uint16();
    if (v1 && favourite)
        message.v1FlashValue = in.int16();
    if (!v1 && favourite) {
        message.band = in.int16();
        message.extraCode = in.int16();
    }
    message.level = in.int32();
    if (favourite)
        message.period = in.uint32();
    message.gnxLatitude = in.number() / kAngleUnitsPerDegree;
    message.gnxLongitude = in.number() / kAngleUnitsPerDegree;
    message.gnxDirection = in.uint32();
    if (!v1 && !favourite) {
        message.band = in.int16();
        message.extraCode = in.int16();
    }
    message.payload = readPayload(in, message);
    return message;
}

QString formatLine(const OrviaRxMessage_t& m, const LineOptions& options)
{
    const bool v1 = options.layout == GnxLink::GNX_V1;
    const bool v2 = options.layout == GnxLink::GNX_V2;
    const bool favourite = m.platformIndex != -1 && m.platformIndex != options.slotCount;

    QStringList fields;
    if (favourite)
        fields << QStringLiteral("NPRF") << QString::number(m.platformIndex);
    else if (m.platformIndex == options.slotCount)
        fields << QStringLiteral("NPR") << QString::number(m.platformIndex);
    else
        fields << QStringLiteral("NPR");

    const QDateTime at = MRL::Utils::DateTime::fromMjd(m.mjd, m.secondsOfDay).toQDateTime();
    fields << QString::number(at.date().year() - kYearBase) << QString::number(at.date().month())
           << QString::number(at.date().day()) << QString::number(at.time().hour())
           << QString::number(at.time().minute()) << QString::number(at.time().second());
    fields << m.platformId << QString::number(m.frequency)
           << QString::number(m.flagBit2 * 4 + m.flagBit1 * 2 + int(m.flagBit0))
           << QString::number(m.direction);
    if (v1 && favourite)
        fields << QString::number(m.v1FlashValue);
    if (v2 && favourite)
        fields << QString::number(m.band) << QString::number(m.extraCode);
    fields << QString::number(m.level);
    if (favourite)
        fields << QString::number(m.period);
    fields << angle(m.gnxLatitude) << angle(m.gnxLongitude) << QString::number(m.gnxDirection);
    if (v2 && !favourite)
        fields << QString::number(m.band) << QString::number(m.extraCode);

    // The identifier's last byte always goes back in front of a 28-bit identifier's payload.
    const bool longId = isLongId(m.platformId);
    fields << QString::number((m.payload.size() + (longId ? 1 : 0)) * 8);
    QString hex = QString::fromLatin1(m.payload.toHex().toUpper());
    if (longId)
        hex.prepend(m.platformId.right(2));
    fields << hex;

    const QString text = fields.join(QLatin1Char(',')) + QLatin1Char('*');
    // The GNX134 leaves the last two payload digits and the "*" out of its NPR checksum.
    const bool shortChecksum = options.keepGnx134ChecksumError && v1;
    const quint8 sum = GnxFrame::checksum(shortChecksum ? QStringView(text).chopped(3) : QStringView(text));
    return QLatin1Char('$') + text + GnxFrame::checksumText(sum);
}

} // namespace OrviaGonioManager::Com::NprCodec
