#include "utils/RxJson.h"

#include "mrl/utils/DateTime.h"

namespace OrviaGonioManager::Utils {

QJsonObject rxJson(const RxTableModel::Row& row)
{
    const Com::OrviaRxMessage_t& m = row.message;
    QJsonObject o{
        {QStringLiteral("origin"), row.flash ? QStringLiteral("flash") : QStringLiteral("live")},
        {QStringLiteral("time"),
         MRL::Utils::DateTime::fromMjd(m.mjd, m.secondsOfDay).toQDateTime().toString(Qt::ISODateWithMs)},
        {QStringLiteral("platformIndex"), m.platformIndex},
        {QStringLiteral("mjd"), qint64(m.mjd)},
        {QStringLiteral("secondsOfDay"), m.secondsOfDay},
        {QStringLiteral("platformId"), m.platformId},
        {QStringLiteral("platform"), row.byNumber.platform},
        {QStringLiteral("frequency"), qint64(m.frequency)},
        {QStringLiteral("flagBit2"), m.flagBit2},
        {QStringLiteral("flagBit1"), m.flagBit1},
        {QStringLiteral("flagBit0"), m.flagBit0},
        {QStringLiteral("direction"), m.direction},
        {QStringLiteral("v1FlashValue"), m.v1FlashValue},
        {QStringLiteral("band"), m.band},
        {QStringLiteral("extraCode"), m.extraCode},
        {QStringLiteral("level"), m.level},
        {QStringLiteral("period"), qint64(m.period)},
        {QStringLiteral("gnxLatitude"), m.gnxLatitude},
        {QStringLiteral("gnxLongitude"), m.gnxLongitude},
        {QStringLiteral("gnxDirection"), qint64(m.gnxDirection)},
        {QStringLiteral("payload"), QString::fromLatin1(m.payload.toHex().toUpper())},
        {QStringLiteral("payloadLatitude"),
         row.byNumber.payloadPosition ? QJsonValue(row.byNumber.payloadLatitude) : QJsonValue()},
        {QStringLiteral("payloadLongitude"),
         row.byNumber.payloadPosition ? QJsonValue(row.byNumber.payloadLongitude) : QJsonValue()},
    };
    if (!row.byNumber.label.isEmpty())
        o.insert(QStringLiteral("label"), row.byNumber.label);
    return o;
}

} // namespace OrviaGonioManager::Utils
