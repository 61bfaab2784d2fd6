#pragma once

#include "com/GnxLink.h"

#include <QString>

namespace OrviaGonioManager::Utils {

// How a coordinate in decimal degrees is shown, as the receiver's "Corrdinates type" chooses.
// Pure; the RX table keeps the degrees and redraws its cells when the choice changes.
namespace CoordinateText {

// COORDTYPE_DEG: decimal degrees with five decimals;
// COORDTYPE_DEGMINSEC: degrees and decimal minutes, "xx°xx.xx'";
// COORDTYPE_DEGSEC: degrees, minutes and seconds, "xx°xx'xx\"".
// The combo box lists them in this order. A value that is not finite, or far too large to be a
// coordinate, is written in decimal.
QString format(double degrees, Com::GnxLink::CoordType_t type);

} // namespace CoordinateText

} // namespace OrviaGonioManager::Utils
