#include "com/PlatformCodec.h"

#include "mrl/utils/Exception.h"

namespace OrviaGonioManager::Com::PlatformCodec {

namespace {

using Utils::GpsCoordinate_t;
using Utils::GpsFormat_t;

constexpr int kShortIdLength = 5;

QString number(qint64 value)
{
    return QString::number(value);
}

void appendCoordinate(QStringList& out, const GpsCoordinate_t& c)
{
    out << number(c.signPos) << number(c.signLen) << number(c.pos) << number(c.len) << number(c.T)
        << number(c.U) << number(c.V) << number(c.W) << number(c.TY);
}

void appendReception(QStringList& out, const GnxLink::PlatformInfo& p, GnxLink::GnxVersion_t version)
{
    out << number(p.repetitionPeriod);
    if (version == GnxLink::GNX_V2)
        out << number(p.band) << number(p.modulation) << number(p.frequencyMode) << number(p.narrowFrequency);
    else
        out << number(p.meanDirectionValues);
}

// Takes the fields from the front; a field that does not parse reads as 0.
class FieldReader
{
public:
    explicit FieldReader(const QStringList& fields) : fields_(fields) {}

    QString text() { return fields_.value(next_++); }
    qint32 int32() { return text().toInt(); }
    quint16 uint16() { return text().toUShort(); }
    quint16 hex16() { return quint16(text().toInt(nullptr, 16)); }

    GpsCoordinate_t coordinate()
    {
        GpsCoordinate_t c;
        c.signPos = int32();
        c.signLen = int32();
        c.pos = int32();
        c.len = int32();
        c.T = int32();
        c.U = int32();
        c.V = int32();
        c.W = int32();
        c.TY = int32();
        return c;
    }

private:
    const QStringList& fields_;
    int next_ = 0;
};

} // namespace

int parameterCount(GnxLink::GnxVersion_t version)
{
    switch (version) {
    case GnxLink::GNX_V1:
        return 36;
    case GnxLink::GNX_V2:
        return 39;
    default:
        return 0;
    }
}

QString dataLengthError(qint32 dataLen)
{
    return QStringLiteral("Unable to set platform info, data length is not between 1 and 254 (%1)")
        .arg(dataLen);
}

void checkGpsFormat(const GpsFormat_t* gpsFormat)
{
    // Unsigned on purpose: 0 wraps round and fails with the values above 254.
    if (gpsFormat && quint32(gpsFormat->dataLen) - 1u > 253u)
        throw MRL::Utils::Exception(dataLengthError(gpsFormat->dataLen), 2);
}

void checkTexts(const GnxLink::PlatformInfo& platform)
{
    QStringList texts{platform.id, platform.label};
    if (platform.gpsFormat)
        texts << platform.gpsFormat->name;
    for (const QString& text : texts) {
        for (const QChar c : text) {
            if (c == QLatin1Char(',') || c == QLatin1Char('*') || c == QLatin1Char('$') ||
                c == QLatin1Char('\r') || c == QLatin1Char('\n'))
                throw MRL::Utils::Exception(
                    QStringLiteral("Unable to set platform info, forbidden character in \"%1\"").arg(text),
                    2);
        }
    }
}

QStringList writeParameters(const GnxLink::PlatformInfo& p, GnxLink::GnxVersion_t version, bool recreate)
{
    const GpsFormat_t* f = p.gpsFormat;
    QStringList out;
    out << number(p.index) << (recreate ? QStringLiteral("1") : QString())
        << (p.id.size() == kShortIdLength ? QStringLiteral("1") : QStringLiteral("2")) << p.id << p.label;
    if (f) {
        out << QStringLiteral("1") << f->name;
        appendCoordinate(out, f->latitude);
        appendCoordinate(out, f->longitude);
        out << number(f->payloadLength) << number(f->indexPos) << (f->gpsCheck ? QStringLiteral("1") : "0");
    } else {
        out << QStringLiteral("0") << QString();
        for (int i = 0; i < 21; ++i)
            out << QStringLiteral("0");
    }
    appendReception(out, p, version);
    if (f) {
        out << number(f->encryptionType) << QString::number(f->polynom, 16) << number(f->crcPos)
            << number(f->crcLen) << number(f->dataPos) << number(f->dataLen);
    } else {
        // The last one is 1, not 0: the device wants a non-zero data length even without a format.
        out << QStringLiteral("0") << QStringLiteral("0") << QStringLiteral("0") << QStringLiteral("0")
            << QStringLiteral("0") << QStringLiteral("1");
    }
    return out;
}

QStringList readParameters(int index, GnxLink::GnxVersion_t version)
{
    QStringList out{number(index)};
    while (out.size() < parameterCount(version))
        out << QString();
    return out;
}

QStringList clearParameters(int index, GnxLink::GnxVersion_t version)
{
    QStringList out{number(index), QStringLiteral("0")};
    while (out.size() < parameterCount(version))
        out << QString();
    return out;
}

Slot parseReply(const QStringList& values, GnxLink::GnxVersion_t version)
{
    FieldReader in(values);
    Slot slot;
    GnxLink::PlatformInfo& p = slot.platform;
    GpsFormat_t& f = slot.gpsFormat;

    p.index = in.int32();
    in.text(); // action
    in.text(); // identifier type: implied by the identifier's length
    p.id = in.text();
    p.label = in.text();
    slot.hasGpsFormat = in.int32() != 0;
    f.name = in.text();
    f.latitude = in.coordinate();
    f.longitude = in.coordinate();
    f.payloadLength = in.int32();
    f.indexPos = in.int32();
    f.gpsCheck = in.uint16() != 0;
    p.repetitionPeriod = in.int32();
    if (version == GnxLink::GNX_V2) {
        p.band = in.int32();
        p.modulation = in.int32();
        p.frequencyMode = in.int32();
        p.narrowFrequency = in.int32();
    } else {
        p.meanDirectionValues = in.int32();
    }
    f.encryptionType = Utils::GpsFormat::EncryptionType_t(in.uint16());
    f.polynom = in.hex16();
    f.crcPos = in.int32();
    f.crcLen = in.int32();
    f.dataPos = in.int32();
    f.dataLen = in.int32();
    f.origin = Utils::GpsFormat::ORIGIN_GNX;
    return slot;
}

QStringList csvFields(const GnxLink::PlatformInfo& p, const QString& gpsFormatName,
                      GnxLink::GnxVersion_t version)
{
    QStringList fields{p.id, p.label, gpsFormatName, QString::number(p.repetitionPeriod)};
    if (version == GnxLink::GNX_V1)
        fields << QString::number(p.meanDirectionValues);
    else
        fields << QString::number(p.band) << QString::number(p.modulation) << QString::number(p.frequencyMode)
               << QString::number(quint32(p.narrowFrequency));
    return fields;
}

GnxLink::PlatformInfo fromCsvFields(const QStringList& fields, GnxLink::GnxVersion_t version,
                                    const QString& fileName)
{
    GnxLink::PlatformInfo p;
    p.id = fields.value(0);
    p.label = fields.value(1);
    const QString format = fields.value(2);
    if (!format.isEmpty()) {
        p.gpsFormat = Utils::GpsFormat::instance()->getGpsFormat(format);
        if (!p.gpsFormat)
            throw MRL::Utils::Exception(
                QStringLiteral("Unable to read platform %1 from file %2, unknown GPS Format name %3.")
                    .arg(p.id, fileName, format),
                2);
    }
    p.repetitionPeriod = fields.value(3).toInt();
    if (version == GnxLink::GNX_V1) {
        p.meanDirectionValues = fields.value(4).toInt();
    } else {
        p.band = fields.value(4).toInt();
        p.modulation = fields.value(5).toInt();
        p.frequencyMode = fields.value(6).toInt();
        p.narrowFrequency = qint32(fields.value(7).toUInt());
    }
    return p;
}

} // namespace OrviaGonioManager::Com::PlatformCodec
