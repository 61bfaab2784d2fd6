#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

namespace gnxsim {

// Where a coordinate sits in a payload and how its raw value scales to 1/60000 degree.
struct CoordinateField
{
    qint32 signPos = 0, signLen = 0, pos = 0, len = 0;
    qint32 t = 1, u = 1, v = 0, w = 1, ty = 0;

    QList<qint32> values() const { return {signPos, signLen, pos, len, t, u, v, w, ty}; }
    static CoordinateField fromValues(const QList<qint32>& nine);
    int endBit() const;
};

// A GPS format as the receiver stores it with a favourite slot and as the formats file lists it.
struct PositionFormat
{
    QString name, type, manufacturer, description;
    qint32 payloadLength = 0; // bits, the 28-bit identifier's byte included
    CoordinateField lat, lon;
    int encryptionType = 0;
    quint16 polynom = 0;
    qint32 crcPos = 0, crcLen = 0, dataPos = 0, dataLen = 1, indexPos = 0;
    bool gpsCheck = false;

    // One line of the formats file, "#" included.
    QString toVtlLine() const;
    // The formats the emulator seeds its platforms with, in name order.
    static const QList<PositionFormat>& builtins();
    // The whole formats file for the built-in formats: the count, then one line per format.
    static QByteArray builtinsVtlFile();
    // Payload size needed by the format (at least one byte).
    int payloadBytes() const;
};

// Encodes value (1/60000 degree) into the payload so that sign x raw x T/U + V/W (with the TY fold)
// gives it back; returns false when the value had to be clamped to fit the field.
bool encodeCoordinate(QByteArray& payload, const CoordinateField& field, qint64 value, int limitDegrees);

// The decoding rule, for checks: the value in 1/60000 degree.
double decodeCoordinate(const QByteArray& payload, const CoordinateField& field, int limitDegrees);

} // namespace gnxsim
