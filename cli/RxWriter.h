#pragma once

#include "utils/RxTableModel.h"

#include <QIODevice>
#include <QString>

namespace OrviaGonioManager::Cli {

// Writes received messages in one of the command line's formats: "csv" (the RX table's export:
// same header, columns and texts), "jsonl" (one JSON object a line) or "npr" (the device line
// that the RX table shows). Each message is flushed as it is written.
class RxWriter
{
public:
    static bool isFormat(const QString& format);

    RxWriter(QIODevice& out, const QString& format, const Com::GnxLink& link,
             Com::GnxLink::CoordType_t coordType);

    // The CSV header; nothing in the other formats. False once the reader went away.
    bool begin();
    bool write(const Utils::RxTableModel::Row& row);

private:
    bool put(const QString& line);

    QIODevice& out_;
    QString format_;
    const Com::GnxLink& link_;
    Com::GnxLink::CoordType_t coordType_;
};

} // namespace OrviaGonioManager::Cli
