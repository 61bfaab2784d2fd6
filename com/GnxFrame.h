#pragma once

#include "com/GnxLink.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QStringView>

namespace OrviaGonioManager::Com {

// The receiver's line format: "$" + payload + "*" + two upper-case hexadecimal digits + CR LF.
// Pure functions, shared by the link, the request engine, recording and the NPR formatter.
namespace GnxFrame {

// XOR of every UTF-16 code unit below 256; the device includes the "*" in the sum.
quint8 checksum(QStringView text);
// Two upper-case hexadecimal digits, zero-padded.
QString checksumText(quint8 value);

// Text the device knows a command by: the enum key without "CMD_", "TEST" for the keep-alive.
QString mnemonic(GnxLink::GnxCmd_t cmd);
// Mnemonic, then "," and the parameters joined with "," when there are any.
QString commandLine(GnxLink::GnxCmd_t cmd, const QStringList& params = {});
// payload + "*" + checksum of (payload + "*"); no "$", no line end.
QString seal(const QString& payload);
// Bytes written to the port: "$" + sealed payload in Latin-1 + CR LF.
QByteArray encode(GnxLink::GnxCmd_t cmd, const QStringList& params = {});

struct DecodedLine
{
    enum Status
    {
        Ok,
        Undecodable,         // does not match the line pattern
        BadChecksum,         // mismatch; error() gives the user text
        AcceptedNprChecksum, // NPR mismatch that passed the GNX134 second check
    };

    Status status = Undecodable;
    QString mnemonic;
    QStringList params;           // fields after the mnemonic
    QString receivedChecksumText; // as received, upper-case hexadecimal
    quint32 receivedChecksum = 0;
    quint8 computedChecksum = 0;

    bool accepted() const { return status == Ok || status == AcceptedNprChecksum; }
};

DecodedLine decodeLine(const QString& line);

// A command typed by the user (or read from a script), as the request engine takes it.
struct ManualCommand
{
    QStringList warnings; // logged in this order
    // A command of the engine: sent as a request and its reply awaited.
    bool request = false;
    GnxLink::GnxCmd_t cmd = GnxLink::CMD_TEST;
    QStringList params;
    // Otherwise the line handed to the link: completed with "$" and its checksum when none was
    // typed, or the typed text unchanged (a wrong checksum goes out as typed, deliberately).
    QString line;
};
ManualCommand parseManualCommand(const QString& typed);

// User texts of the decoding failures and of the second-check warning.
QString undecodableWarning(const QString& line);
QString badChecksumError(const QString& line, const DecodedLine& decoded);
QString nprChecksumWarning(const QString& mnemonic);

} // namespace GnxFrame

} // namespace OrviaGonioManager::Com
