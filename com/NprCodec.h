#pragma once

#include "com/GnxLink.h"

#include <QString>
#include <QStringList>

namespace OrviaGonioManager::Com {

// The receiver's live reports, NPR (any platform) and NPRF (a favourite), as pure functions:
// parameters after the mnemonic to a message, and a message back to a framed line.
namespace NprCodec {

// Fields after the mnemonic: GNX134 17 / 19, GNX234 18 / 20; 0 for an unknown generation.
int parameterCount(GnxLink::GnxVersion_t version, GnxLink::GnxMessageType_t type);

// The generation whose layout has this many fields for this type; GNX_UNDEFINEDVERSION when none.
GnxLink::GnxVersion_t versionForCount(GnxLink::GnxMessageType_t type, int count);

QString wrongCountError();

// Throws MRL::Utils::Exception with wrongCountError() on a wrong count. Unparsable numbers give 0.
OrviaRxMessage_t parse(GnxLink::GnxVersion_t version, GnxLink::GnxMessageType_t type,
                       const QStringList& params);

struct LineOptions
{
    GnxLink::GnxVersion_t layout = GnxLink::GNX_UNDEFINEDVERSION;
    int slotCount = 0;                    // favourite slots of the connected receiver
    bool keepGnx134ChecksumError = false; // reproduce the GNX134 short NPR checksum
};

// "$NPR,...*CS" or "$NPRF,...*CS", without line end.
QString formatLine(const OrviaRxMessage_t& message, const LineOptions& options);

} // namespace NprCodec

} // namespace OrviaGonioManager::Com
