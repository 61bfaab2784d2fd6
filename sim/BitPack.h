#pragma once

#include <QByteArray>

namespace gnxsim::BitPack {

// Flash headers: bit k is bit (k mod 8) of byte k / 8; a field's low bits sit in the lower byte.
void putLsb(QByteArray& buffer, int firstBit, int width, quint64 value);
quint64 getLsb(const QByteArray& buffer, int firstBit, int width);

// Payloads: bit b is bit 7 - (b mod 8) of byte b / 8; a field's most significant bit comes first.
void putMsb(QByteArray& buffer, int firstBit, int width, quint64 value);
quint64 getMsb(const QByteArray& buffer, int firstBit, int width);

} // namespace gnxsim::BitPack
