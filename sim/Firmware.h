#pragma once

#include "sim/Options.h"

#include <QByteArray>
#include <QString>
#include <optional>

namespace gnxsim::Firmware {

// One record of a VAN firmware file, our own format:
//   "V" TT AAAAAAAA LL DD.. CC   (upper-case hex, no separators)
// TT type (00 data, 01 end, 02 version text), AAAAAAAA address, LL data length, DD data bytes,
// CC = two's complement of the byte sum of TT, the address bytes, LL and the data.
enum RecordType
{
    Data = 0,
    End = 1,
    Version = 2
};

struct Record
{
    int type = Data;
    quint32 address = 0;
    QByteArray data;
};

QByteArray encode(const Record& record);
std::optional<Record> decode(const QByteArray& text);

// A whole VAN file: the header line, then the records separated by CR (no trailing CR).
QByteArray vanFile(Model model, const QString& version, int dataRecords = 100, int recordBytes = 32);

} // namespace gnxsim::Firmware
