#pragma once

#include "sim/RxReport.h"

#include <QByteArray>

namespace gnxsim {

// How the receiver stores a message in its flash memory, per generation.
namespace FlashLayout {
constexpr int gnx134HeaderBytes = 22;
constexpr int gnx234HeaderBytes = 26;
// GNX134 per-platform record: header + (c + 1) * 4 payload bytes (the payload is cut or padded).
QByteArray gnx134Record(const RxReport& report);
// GNX234 record: header + payload + one check byte (XOR of the record).
QByteArray gnx234Record(const RxReport& report);
// Longest payload each layout can hold.
constexpr int gnx134MaxPayload = 32;
constexpr int gnx234MaxPayload = 63;
// The longitude field: 23 bits and a sign, in 1/60000 degree (about ±139.81°); the latitude has 24.
constexpr qint64 longitudeMax = (qint64(1) << 23) - 1;
constexpr qint64 longitudeMin = -(qint64(1) << 23);
} // namespace FlashLayout

} // namespace gnxsim
