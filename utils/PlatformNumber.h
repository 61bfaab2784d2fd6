#pragma once

#include "com/GnxLink.h"

#include <QByteArray>
#include <QString>

namespace OrviaGonioManager::Utils {

// Beside the RX table a platform is its number, whatever width the receiver wrote it in: a live
// report gives "2A1B3", a GNX234 flash record "002A1B3".
namespace PlatformNumber {
// The number in its shortest form: five hexadecimal digits when it fits in 20 bits, else seven;
// upper case. Text that is not a hexadecimal number is returned trimmed and upper-cased.
QString shortest(const QString& id);

// The payload as a GPS format reads it: a zero byte in front exactly when the receiver's filler
// byte was dropped (a seven-digit identifier without extraCode 2), so that live and flash copies
// of one message give one position.
QByteArray positionPayload(const Com::OrviaRxMessage_t& message);
} // namespace PlatformNumber

} // namespace OrviaGonioManager::Utils
