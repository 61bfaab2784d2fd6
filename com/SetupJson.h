#pragma once

#include "com/GnxLink.h"

#include <QJsonObject>
#include <QStringList>

namespace OrviaGonioManager::Com {

// Both setups as one JSON object: {"software": {...}, "hardware": {...}}, each field under its own
// name, enumerations by their key ("COORDTYPE_DEG"). The clock is the device's and is left out.
namespace SetupJson {

QJsonObject toJson(const GnxLink::SetupSoftware& software, const GnxLink::SetupHardware& hardware);
// Overlays the fields the object holds on the setups given; throws on an unknown field, a wrong
// type or an unknown key, naming the field.
void apply(const QJsonObject& object, GnxLink::SetupSoftware& software, GnxLink::SetupHardware& hardware);
// The fields whose values differ, as "software.contrast".
QStringList differences(const QJsonObject& wanted, const QJsonObject& got);

} // namespace SetupJson

} // namespace OrviaGonioManager::Com
