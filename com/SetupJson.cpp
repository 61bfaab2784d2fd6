#include "com/SetupJson.h"

#include "mrl/utils/Exception.h"

#include <QMetaEnum>

#include <cmath>

namespace OrviaGonioManager::Com::SetupJson {

namespace {

template <typename E> QJsonValue enumValue(E value)
{
    return QString::fromLatin1(QMetaEnum::fromType<E>().valueToKey(int(value)));
}

[[noreturn]] void bad(const QString& field, const QString& why)
{
    throw MRL::Utils::Exception(QStringLiteral("Setup field %1: %2").arg(field, why), 2);
}

// Reads one field into target when the object holds it.
class Reader
{
public:
    Reader(const QJsonObject& object, const QString& group) : object_(object), group_(group) {}

    template <typename T> void number(const char* key, T& target, double min, double max)
    {
        const QJsonValue v = object_.value(QLatin1String(key));
        if (v.isUndefined())
            return;
        const double d = v.toDouble(std::nan(""));
        if (!v.isDouble() || d != double(qint64(d)) || d < min || d > max)
            bad(name(key), QStringLiteral("a whole number from %1 to %2").arg(min).arg(max));
        target = T(d);
    }
    void boolean(const char* key, bool& target)
    {
        const QJsonValue v = object_.value(QLatin1String(key));
        if (v.isUndefined())
            return;
        if (!v.isBool())
            bad(name(key), QStringLiteral("true or false"));
        target = v.toBool();
    }
    void text(const char* key, QString& target)
    {
        const QJsonValue v = object_.value(QLatin1String(key));
        if (v.isUndefined())
            return;
        if (!v.isString())
            bad(name(key), QStringLiteral("a text"));
        target = v.toString();
    }
    template <typename E> void enumeration(const char* key, E& target)
    {
        const QJsonValue v = object_.value(QLatin1String(key));
        if (v.isUndefined())
            return;
        bool ok = false;
        const int value = QMetaEnum::fromType<E>().keyToValue(v.toString().toLatin1().constData(), &ok);
        if (!v.isString() || !ok)
            bad(name(key), QStringLiteral("an unknown value"));
        target = E(value);
    }

private:
    QString name(const char* key) const { return group_ + QLatin1Char('.') + QLatin1String(key); }
    const QJsonObject& object_;
    QString group_;
};

void checkKeys(const QJsonObject& object, const QJsonObject& known, const QString& group)
{
    for (auto it = object.begin(); it != object.end(); ++it)
        if (!known.contains(it.key()))
            bad(group + QLatin1Char('.') + it.key(), QStringLiteral("no such field"));
}

} // namespace

QJsonObject toJson(const GnxLink::SetupSoftware& s, const GnxLink::SetupHardware& h)
{
    const QJsonObject software{
        {QStringLiteral("audio"), s.audio},
        {QStringLiteral("backlight"), s.backlight},
        {QStringLiteral("contrast"), s.contrast},
        {QStringLiteral("gpsAcquisition"), s.gpsAcquisition},
        {QStringLiteral("coordType"), enumValue(s.coordType)},
        {QStringLiteral("distType"), enumValue(s.distType)},
        {QStringLiteral("directionOffset"), s.directionOffset},
        {QStringLiteral("band"), enumValue(s.band)},
        {QStringLiteral("allToFavorites"), s.allToFavorites},
    };
    const QJsonObject hardware{
        {QStringLiteral("directionMode"), enumValue(h.directionMode)},
        {QStringLiteral("antennaPosition"), enumValue(h.antennaPosition)},
        {QStringLiteral("cableLength"), h.cableLength},
        {QStringLiteral("antennaType"), enumValue(h.antennaType)},
        {QStringLiteral("compassMode"), enumValue(h.compassMode)},
        {QStringLiteral("declination"), h.declination},
        {QStringLiteral("proximityMode"), h.proximityMode},
    };
    return {{QStringLiteral("software"), software}, {QStringLiteral("hardware"), hardware}};
}

void apply(const QJsonObject& object, GnxLink::SetupSoftware& s, GnxLink::SetupHardware& h)
{
    const QJsonObject known = toJson(s, h);
    checkKeys(object, known, QStringLiteral("setup"));
    const QJsonObject software = object.value(QStringLiteral("software")).toObject();
    const QJsonObject hardware = object.value(QStringLiteral("hardware")).toObject();
    checkKeys(software, known.value(QStringLiteral("software")).toObject(), QStringLiteral("software"));
    checkKeys(hardware, known.value(QStringLiteral("hardware")).toObject(), QStringLiteral("hardware"));

    Reader sw(software, QStringLiteral("software"));
    sw.boolean("audio", s.audio);
    sw.boolean("backlight", s.backlight);
    sw.number("contrast", s.contrast, 0, 40);
    sw.boolean("gpsAcquisition", s.gpsAcquisition);
    sw.enumeration("coordType", s.coordType);
    sw.enumeration("distType", s.distType);
    sw.number("directionOffset", s.directionOffset, 0, 65535);
    sw.enumeration("band", s.band);
    sw.boolean("allToFavorites", s.allToFavorites);

    Reader hw(hardware, QStringLiteral("hardware"));
    hw.enumeration("directionMode", h.directionMode);
    hw.enumeration("antennaPosition", h.antennaPosition);
    hw.number("cableLength", h.cableLength, -2147483648.0, 2147483647.0);
    hw.enumeration("antennaType", h.antennaType);
    hw.enumeration("compassMode", h.compassMode);
    hw.text("declination", h.declination);
    hw.boolean("proximityMode", h.proximityMode);
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
