#pragma once

#include "com/GnxLink.h"

#include <QJsonObject>
#include <QStringList>

namespace OrviaGonioManager::Com {

// Both setups as one JSON object: {"software": {...}, "hardware": {...}}, each field under its own
// name, numbers and flags as JSON numbers and booleans, enumerations by the text the window's combo
// box shows for them (EnumTexts). The clock is the device's and is left out.
namespace SetupJson {

QJsonObject toJson(const GnxLink::SetupSoftware& software, const GnxLink::SetupHardware& hardware);
// Overlays the fields the object holds on the setups given, or changes nothing and throws on an
// unknown field, a wrong type, a number out of range or a text no combo entry has, naming the field
// ("software.band: ...").
void apply(const QJsonObject& object, GnxLink::SetupSoftware& software, GnxLink::SetupHardware& hardware);
// The fields whose values differ, as "software.contrast".
QStringList differences(const QJsonObject& wanted, const QJsonObject& got);

} // namespace SetupJson

} // namespace OrviaGonioManager::Com
