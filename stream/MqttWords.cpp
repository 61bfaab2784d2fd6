#include "stream/MqttWords.h"

#include <QRandomGenerator>

#include <algorithm>

namespace OrviaGonioManager::Stream::MqttWords {

QString connackReason(int code)
{
    switch (code) {
    case 1:
        return QStringLiteral("protocol version refused by the broker");
    case 2:
        return QStringLiteral("client id refused by the broker");
    case 3:
        return QStringLiteral("broker unavailable");
    case 4:
        return QStringLiteral("bad user name or password");
    case 5:
        return QStringLiteral("not authorised");
    default:
        return QStringLiteral("refused by the broker (code %1)").arg(code);
    }
}

bool isFinalConnack(int code)
{
    return code == 1 || code == 2 || code == 4 || code == 5;
}

int jittered(int nominalMs)
{
    const int low = nominalMs * 4 / 5;
    const int high = std::min(nominalMs * 6 / 5, kMaxRetryMs);
    return low + int(QRandomGenerator::global()->bounded(high - low + 1));
}

} // namespace OrviaGonioManager::Stream::MqttWords
