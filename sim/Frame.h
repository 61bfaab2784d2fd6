#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace gnxsim {

// The receiver's line framing: "$" + payload + "*" + two upper-case hex digits + CR LF.
namespace Frame {

// XOR of the payload bytes followed by "*" (the "*" is part of the sum, the "$" is not).
quint8 checksum(const QByteArray& payload);
// XOR of the bytes as they are (no "*" added).
quint8 xorBytes(const QByteArray& bytes);
QByteArray hex2(quint8 value);

// A complete line, CR LF included.
QByteArray frame(const QByteArray& payload);
// GNX134 NPR lines: the checksum covers the payload without its last two characters and without "*".
QByteArray frameGnx134Quirk(const QByteArray& payload);

QByteArray payloadOf(const QString& mnemonic, const QStringList& params);

struct Parsed
{
    bool framed = false; // "$...*XX" shape
    bool checksumOk = false;
    QByteArray payload; // between "$" and "*" (or the whole line when not framed)
    QString mnemonic;
    QStringList params;
};
// Parses one received line (without its line end).
Parsed parseLine(const QByteArray& line);

} // namespace Frame
} // namespace gnxsim
