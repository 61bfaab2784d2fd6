#pragma once

#include "utils/RxTableModel.h"

#include <QIODevice>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

namespace OrviaGonioManager::Store {

// Kept messages as files other tools read, for the History window and "gnxctl history":
// - csv: the RX table's export (same header, columns and texts, Latin-1);
// - jsonl: one object a line, as "gnxctl monitor --format jsonl" writes it (rxFromJson reads it back);
// - json: the same objects in one array;
// - geojson: a FeatureCollection of points (longitude, latitude): one at the payload position of
//   each message whose position was decoded, one at the receiver's position of each message sent
//   while the receiver knew it; each point's properties are the message's object plus "position",
//   "payload" or "receiver".
// The rows are written in the order given.
class HistoryExport
{
public:
    enum class Format
    {
        Csv,
        Jsonl,
        Json,
        GeoJson
    };

    static std::optional<Format> format(const QString& name);
    static QString name(Format format);
    static QStringList names();
    // The file name suffix, with its dot.
    static QString suffix(Format format);

    // False when a write failed (the reader went away, the disk is full).
    static bool write(QIODevice& out, Format format, const std::vector<Utils::RxTableModel::Row>& rows,
                      Com::GnxLink::CoordType_t coordType = Com::GnxLink::COORDTYPE_DEG);
    // The whole file or nothing, through OutputFile; on failure says why, naming the file.
    static bool save(const QString& fileName, Format format,
                     const std::vector<Utils::RxTableModel::Row>& rows, Com::GnxLink::CoordType_t coordType,
                     QString* error);

    // The points one message gives, as GeoJSON features (none, one or two).
    static std::vector<QJsonObject> features(const Utils::RxTableModel::Row& row);
};

} // namespace OrviaGonioManager::Store
