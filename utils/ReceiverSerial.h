#pragma once

#include "com/GnxLink.h"

namespace OrviaGonioManager::Utils {

// A receiver's serial number as gnxctl info shows it and the stations name their topics
// ("0099-429"): the one key under which every tool keeps its messages.
inline QString receiverSerial(const Com::GnxLink::GnxDeviceInfo& device)
{
    return QStringLiteral("%1-%2").arg(device.serialNumberPart1, device.serialNumberPart2);
}

} // namespace OrviaGonioManager::Utils
