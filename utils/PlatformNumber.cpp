#include "utils/PlatformNumber.h"

namespace OrviaGonioManager::Utils::PlatformNumber {

QString shortest(const QString& id)
{
    const QString text = id.trimmed().toUpper();
    bool ok = false;
    const qulonglong number = text.toULongLong(&ok, 16);
    if (!ok || text.startsWith(QLatin1Char('+')) || text.startsWith(QLatin1Char('-')) ||
        text.startsWith(QLatin1String("0X")))
        return text;
    const int width = number < (1u << 20) ? 5 : 7;
    return QStringLiteral("%1").arg(number, width, 16, QLatin1Char('0')).toUpper();
}

QByteArray positionPayload(const Com::OrviaRxMessage_t& message)
{
    QByteArray payload = message.payload;
    if (message.platformId.size() == 7 && message.extraCode != 2)
        payload.prepend('\0');
    return payload;
}

} // namespace OrviaGonioManager::Utils::PlatformNumber
