#include "com/SetupJson.h"

#include "com/EnumTexts.h"
#include "mrl/utils/Exception.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <cmath>
#include <limits>

namespace OrviaGonioManager::Com::SetupJson {

namespace {

// A value as it is written in the file, quotes and escapes included.
QString asJson(const QJsonValue& value)
{
    const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}

[[noreturn]] void bad(const QString& field, const QString& why)
{
    throw MRL::Utils::Exception(QStringLiteral("%1: %2").arg(field, why), 2);
}

[[noreturn]] void notA(const QString& field, const QJsonValue& value, const QString& wanted)
{
    bad(field, QStringLiteral("%1 is not %2").arg(asJson(value), wanted));
}

// Reads one field into target when the object holds it.
class Reader
{
public:
    Reader(const QJsonObject& object, const QString& group) : object_(object), group_(group) {}

    template <typename T> void number(const char* key, T& target, qint64 min, qint64 max)
    {
        const QJsonValue v = object_.value(QLatin1String(key));
        if (v.isUndefined())
            return;
        const double d = v.toDouble();
        if (!v.isDouble() || !(d >= double(min) && d <= double(max)) || d != std::floor(d))
            notA(name(key), v, QStringLiteral("a whole number from %1 to %2").arg(min).arg(max));
        target = T(d);
    }
    void boolean(const char* key, bool& target)
    {
        const QJsonValue v = object_.value(QLatin1String(key));
        if (v.isUndefined())
            return;
        if (!v.isBool())
            notA(name(key), v, QStringLiteral("true or false"));
        target = v.toBool();
    }
    void text(const char* key, QString& target)
    {
        const QJsonValue v = object_.value(QLatin1String(key));
        if (v.isUndefined())
            return;
        if (!v.isString())
            notA(name(key), v, QStringLiteral("a text"));
        target = v.toString();
    }
    template <typename E> void enumeration(const char* key, E& target)
    {
        const QJsonValue v = object_.value(QLatin1String(key));
        if (v.isUndefined())
            return;
        const std::optional<E> value = v.isString() ? EnumTexts::fromText<E>(v.toString()) : std::nullopt;
        if (!value) {
            QStringList quoted;
            for (const QString& t : EnumTexts::texts<E>())
                quoted << asJson(t);
            notA(name(key), v, QStringLiteral("one of ") + quoted.join(QStringLiteral(", ")));
        }
        target = *value;
    }

private:
    QString name(const char* key) const { return group_ + QLatin1Char('.') + QLatin1String(key); }
    const QJsonObject object_;
    QString group_;
};

// The group's fields, after checking that each one is known.
QJsonObject group(const QJsonObject& object, const QJsonObject& known, const QString& name)
{
    const QJsonValue v = object.value(name);
    if (v.isUndefined())
        return {};
    if (!v.isObject())
        notA(name, v, QStringLiteral("an object"));
    const QJsonObject fields = v.toObject();
    const QJsonObject knownFields = known.value(name).toObject();
    for (auto it = fields.begin(); it != fields.end(); ++it)
        if (!knownFields.contains(it.key()))
            bad(name + QLatin1Char('.') + it.key(), QStringLiteral("no such field"));
    return fields;
}

} // namespace

QJsonObject toJson(const GnxLink::SetupSoftware& s, const GnxLink::SetupHardware& h)
{
    using EnumTexts::text;
    const QJsonObject software{
        {QStringLiteral("audio"), s.audio},
        {QStringLiteral("backlight"), s.backlight},
        {QStringLiteral("contrast"), s.contrast},
        {QStringLiteral("gpsAcquisition"), s.gpsAcquisition},
        {QStringLiteral("coordType"), text(s.coordType)},
        {QStringLiteral("distType"), text(s.distType)},
        {QStringLiteral("directionOffset"), s.directionOffset},
        {QStringLiteral("band"), text(s.band)},
        {QStringLiteral("allToFavorites"), s.allToFavorites},
    };
    const QJsonObject hardware{
        {QStringLiteral("directionMode"), text(h.directionMode)},
        {QStringLiteral("antennaPosition"), text(h.antennaPosition)},
        {QStringLiteral("cableLength"), h.cableLength},
        {QStringLiteral("antennaType"), text(h.antennaType)},
        {QStringLiteral("compassMode"), text(h.compassMode)},
        // The device keeps whatever text it is sent ("E12.5"), so it stays a text.
        {QStringLiteral("declination"), h.declination},
        {QStringLiteral("proximityMode"), h.proximityMode},
    };
    return {{QStringLiteral("software"), software}, {QStringLiteral("hardware"), hardware}};
}

void apply(const QJsonObject& object, GnxLink::SetupSoftware& software, GnxLink::SetupHardware& hardware)
{
    const QJsonObject known = toJson(software, hardware);
    for (auto it = object.begin(); it != object.end(); ++it)
        if (!known.contains(it.key()))
            bad(it.key(), QStringLiteral("no such field"));

    // Read into copies: a bad field leaves both setups as they were.
    GnxLink::SetupSoftware s = software;
    GnxLink::SetupHardware h = hardware;
    Reader sw(group(object, known, QStringLiteral("software")), QStringLiteral("software"));
    sw.boolean("audio", s.audio);
    sw.boolean("backlight", s.backlight);
    sw.number("contrast", s.contrast, 0, 40);
    sw.boolean("gpsAcquisition", s.gpsAcquisition);
    sw.enumeration("coordType", s.coordType);
    sw.enumeration("distType", s.distType);
    sw.number("directionOffset", s.directionOffset, 0, 65535);
    sw.enumeration("band", s.band);
    sw.boolean("allToFavorites", s.allToFavorites);

    Reader hw(group(object, known, QStringLiteral("hardware")), QStringLiteral("hardware"));
    hw.enumeration("directionMode", h.directionMode);
    hw.enumeration("antennaPosition", h.antennaPosition);
    hw.number("cableLength", h.cableLength, std::numeric_limits<qint32>::min(),
              std::numeric_limits<qint32>::max());
    hw.enumeration("antennaType", h.antennaType);
    hw.enumeration("compassMode", h.compassMode);
    hw.text("declination", h.declination);
    hw.boolean("proximityMode", h.proximityMode);

    software = s;
    hardware = h;
}

QStringList differences(const QJsonObject& wanted, const QJsonObject& got)
{
    QStringList fields;
    for (const QString& group : {QStringLiteral("software"), QStringLiteral("hardware")}) {
        const QJsonObject w = wanted.value(group).toObject();
        const QJsonObject g = got.value(group).toObject();
        for (auto it = w.begin(); it != w.end(); ++it)
            if (g.value(it.key()) != it.value())
                fields << group + QLatin1Char('.') + it.key();
    }
    return fields;
}

} // namespace OrviaGonioManager::Com::SetupJson
