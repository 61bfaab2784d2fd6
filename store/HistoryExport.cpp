#include "store/HistoryExport.h"

#include "geo/BearingSet.h"
#include "utils/OutputFile.h"
#include "utils/RxJson.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace OrviaGonioManager::Store {

using Utils::RxTableModel;

namespace {

constexpr int kChunk = 256 * 1024; // bytes gathered before a write

QJsonObject point(double latitude, double longitude, QJsonObject properties, const char* position)
{
    properties.insert(QStringLiteral("position"), QLatin1String(position));
    return {
        {QStringLiteral("type"), QStringLiteral("Feature")},
        {QStringLiteral("geometry"),
         QJsonObject{{QStringLiteral("type"), QStringLiteral("Point")},
                     {QStringLiteral("coordinates"), QJsonArray{longitude, latitude}}}},
        {QStringLiteral("properties"), properties},
    };
}

QByteArray compact(const QJsonObject& o)
{
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

// Gathers what is written into chunks; remembers a failed write.
class Sink
{
public:
    explicit Sink(QIODevice& out) : out_(out) {}
    void put(const QByteArray& bytes)
    {
        buffer_ += bytes;
        if (buffer_.size() >= kChunk)
            flush();
    }
    bool flush()
    {
        if (ok_ && !buffer_.isEmpty())
            ok_ = out_.write(buffer_) == buffer_.size();
        buffer_.clear();
        return ok_;
    }
    bool ok() const { return ok_; }

private:
    QIODevice& out_;
    QByteArray buffer_;
    bool ok_ = true;
};

} // namespace

std::optional<HistoryExport::Format> HistoryExport::format(const QString& name)
{
    for (Format f : {Format::Csv, Format::Jsonl, Format::Json, Format::GeoJson})
        if (HistoryExport::name(f) == name)
            return f;
    return std::nullopt;
}

QString HistoryExport::name(Format format)
{
    switch (format) {
    case Format::Csv:
        return QStringLiteral("csv");
    case Format::Jsonl:
        return QStringLiteral("jsonl");
    case Format::Json:
        return QStringLiteral("json");
    case Format::GeoJson:
        break;
    }
    return QStringLiteral("geojson");
}

QStringList HistoryExport::names()
{
    return {name(Format::Csv), name(Format::Jsonl), name(Format::Json), name(Format::GeoJson)};
}

QString HistoryExport::suffix(Format format)
{
    return QLatin1Char('.') + name(format);
}

std::vector<QJsonObject> HistoryExport::features(const RxTableModel::Row& row)
{
    std::vector<QJsonObject> out;
    const QJsonObject properties = Utils::rxJson(row);
    if (row.byNumber.payloadPosition)
        out.push_back(
            point(row.byNumber.payloadLatitude, row.byNumber.payloadLongitude, properties, "payload"));
    // The receiver's position as the bearings take it: none without a fix.
    const Geo::Bearing b = Geo::BearingSet::fromRow(row, false);
    if (b.receiverValid)
        out.push_back(point(b.receiver.latitude, b.receiver.longitude, properties, "receiver"));
    return out;
}

bool HistoryExport::write(QIODevice& out, Format format, const std::vector<RxTableModel::Row>& rows,
                          Com::GnxLink::CoordType_t coordType)
{
    Sink sink(out);
    switch (format) {
    case Format::Csv:
        sink.put(RxTableModel::headerTexts().join(QLatin1Char(',')).toLatin1() + '\n');
        for (const RxTableModel::Row& row : rows)
            sink.put(RxTableModel::exportLine(row, coordType).toLatin1() + '\n');
        break;
    case Format::Jsonl:
        for (const RxTableModel::Row& row : rows)
            sink.put(compact(Utils::rxJson(row)) + '\n');
        break;
    case Format::Json: {
        sink.put("[");
        bool first = true;
        for (const RxTableModel::Row& row : rows) {
            sink.put((first ? QByteArray("\n") : QByteArray(",\n")) + compact(Utils::rxJson(row)));
            first = false;
        }
        sink.put("\n]\n");
        break;
    }
    case Format::GeoJson: {
        sink.put(R"({"type":"FeatureCollection","features":[)");
        bool first = true;
        for (const RxTableModel::Row& row : rows)
            for (const QJsonObject& feature : features(row)) {
                sink.put((first ? QByteArray("\n") : QByteArray(",\n")) + compact(feature));
                first = false;
            }
        sink.put("\n]}\n");
        break;
    }
    }
    return sink.flush();
}

bool HistoryExport::save(const QString& fileName, Format format, const std::vector<RxTableModel::Row>& rows,
                         Com::GnxLink::CoordType_t coordType, QString* error)
{
    Utils::OutputFile file(fileName);
    if (!file.open(QIODevice::WriteOnly)) {
        *error = QStringLiteral("Unable to open %1: %2").arg(fileName, file.errorString());
        return false;
    }
    if (!write(*file.device(), format, rows, coordType) || !file.commit()) {
        *error = QStringLiteral("Unable to write %1: %2").arg(fileName, file.errorString());
        return false;
    }
    return true;
}

} // namespace OrviaGonioManager::Store
