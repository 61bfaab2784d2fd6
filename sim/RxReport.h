#pragma once

#include "sim/Options.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>

namespace gnxsim {

// One message heard by the receiver, as it is reported live and stored in flash memory.
struct RxReport
{
    int platformIndex = -1; // favourite slot, -1 for any other platform
    QDateTime time;         // UTC, whole seconds
    QString platformId;     // 5 hex characters (20-bit) or 7 (28-bit)
    quint32 frequency = 0;  // Hz
    int flags = 0;          // bit 0: receiver position valid, bit 1: compass valid, bit 2: unused
    int direction = 0;      // degrees
    int v1FlashValue = 0;   // GNX134 favourites: mean direction of the platform
    int band = 0;           // GNX234
    int extraCode = 0;      // GNX234: 2 = the payload carries no identifier byte
    qint32 level = 0;       // dBm
    quint32 period = 0;     // s, favourites only
    qint32 latitude = 0;    // receiver position, 1/60000 degree
    qint32 longitude = 0;
    int gnxDirection = 0; // receiver heading, degrees
    QByteArray payload;   // as sent: for 28-bit identifiers the identifier's last byte comes first

    // "NPR,..." or "NPRF,..." (without framing), with the generation's parameter list.
    QByteArray nprPayload(Model model) const;
};

} // namespace gnxsim
