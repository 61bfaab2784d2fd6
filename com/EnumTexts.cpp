#include "com/EnumTexts.h"

#include <QMetaEnum>

namespace OrviaGonioManager::Com::EnumTexts {

namespace {

// Keys without their prefix ("DIRECTIONMODE_MSG_decoding" shows "MSG_decoding"); the values are
// consecutive from 0, so key i is value i.
template <typename E> QStringList keyTexts()
{
    const QMetaEnum meta = QMetaEnum::fromType<E>();
    QStringList texts;
    for (int i = 0; i < meta.keyCount(); ++i) {
        const QString key = QString::fromLatin1(meta.key(i));
        texts << key.mid(key.indexOf(QLatin1Char('_')) + 1);
    }
    return texts;
}

} // namespace

template <> const QStringList& texts<GnxLink::OrviaBand_t>()
{
    static const QStringList bands = [] {
        QStringList t;
        for (int i = GnxLink::ORVIABAND_B1; i < GnxLink::ORVIABAND_INVALID; ++i)
            t << GnxLink::bandDescription(GnxLink::OrviaBand_t(i));
        return t << QStringLiteral("INVALID");
    }();
    return bands;
}

template <> const QStringList& texts<GnxLink::CoordType_t>()
{
    static const QStringList t{QString::fromUtf8("xx.xxx°"), QString::fromUtf8("xx°xx.xx'"),
                               QString::fromUtf8("xx°xx'xx\"")};
    return t;
}

template <> const QStringList& texts<GnxLink::DistType_t>()
{
    static const QStringList t{QStringLiteral("km"), QStringLiteral("miles"),
                               QStringLiteral("nautical miles")};
    return t;
}

template <> const QStringList& texts<GnxLink::DirectionMode_t>()
{
    static const QStringList t = keyTexts<GnxLink::DirectionMode_t>();
    return t;
}

template <> const QStringList& texts<GnxLink::AntennaPosition_t>()
{
    static const QStringList t = keyTexts<GnxLink::AntennaPosition_t>();
    return t;
}

template <> const QStringList& texts<GnxLink::AntennaType_t>()
{
    static const QStringList t = keyTexts<GnxLink::AntennaType_t>();
    return t;
}

template <> const QStringList& texts<GnxLink::CompassMode_t>()
{
    static const QStringList t = keyTexts<GnxLink::CompassMode_t>();
    return t;
}

template <> const QStringList& texts<GnxLink::OrviaModulation_t>()
{
    static const QStringList t = keyTexts<GnxLink::OrviaModulation_t>();
    return t;
}

std::optional<int> find(const QStringList& texts, const QString& text)
{
    if (const qsizetype i = texts.indexOf(text); i >= 0)
        return int(i);
    for (qsizetype i = 0; i < texts.size(); ++i)
        if (texts[i].compare(text, Qt::CaseInsensitive) == 0)
            return int(i);
    // A band by its name alone, "B1" for "B1: 401.610 MHz to ...".
    for (qsizetype i = 0; i < texts.size(); ++i)
        if (texts[i].contains(QLatin1Char(':')) &&
            texts[i].section(QLatin1Char(':'), 0, 0).compare(text, Qt::CaseInsensitive) == 0)
            return int(i);
    return std::nullopt;
}

} // namespace OrviaGonioManager::Com::EnumTexts
