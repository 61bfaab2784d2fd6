#pragma once

#include "com/GnxLink.h"
#include "utils/GpsFormat.h"

#include <QString>
#include <QStringList>

namespace OrviaGonioManager::Com {

// The parameter lists of the IP command, which reads, writes and clears one favourite slot,
// as pure functions. The same layout serves the write and the device's answer to a read.
namespace PlatformCodec {

// Fields after the mnemonic: 36 on GNX134, 39 on GNX234; 0 for an unknown generation.
int parameterCount(GnxLink::GnxVersion_t version);

// Throws the data-length error unless 1 <= dataLen <= 254. Nothing to check without a format.
void checkGpsFormat(const Utils::GpsFormat_t* gpsFormat);
QString dataLengthError(qint32 dataLen);

// Throws when a text field would break the line (",", "*", "$" or a line end).
void checkTexts(const GnxLink::PlatformInfo& platform);

// The write: index, action ("1" to re-create, else empty), identifier type, id, label, the
// format's flag, name and numbers (zeros and the tail 0,0,0,0,0,1 without one), reception fields.
QStringList writeParameters(const GnxLink::PlatformInfo& platform, GnxLink::GnxVersion_t version,
                            bool recreate);
// A read: the index and every other field empty.
QStringList readParameters(int index, GnxLink::GnxVersion_t version);
// Empties a slot (a delete, or the first step of a re-creation): index, action "0", rest empty.
QStringList clearParameters(int index, GnxLink::GnxVersion_t version);

struct Slot
{
    GnxLink::PlatformInfo platform; // gpsFormat left null: the caller resolves it
    bool hasGpsFormat = false;
    Utils::GpsFormat_t gpsFormat;
};

// The device's answer to a read (parameterCount() fields). Unparsable numbers give 0.
Slot parseReply(const QStringList& values, GnxLink::GnxVersion_t version);

// One line of a platforms file (the window's CSV export): identifier, label, GPS format name, then
// the generation's numeric columns. csvFields() writes it; fromCsvFields() reads the fields of one,
// their count already checked, and throws "Unable to read platform %1 from file %2, unknown GPS
// Format name %3." for a format the program does not know.
QStringList csvFields(const GnxLink::PlatformInfo& platform, const QString& gpsFormatName,
                      GnxLink::GnxVersion_t version);
GnxLink::PlatformInfo fromCsvFields(const QStringList& fields, GnxLink::GnxVersion_t version,
                                    const QString& fileName);

} // namespace PlatformCodec

} // namespace OrviaGonioManager::Com
