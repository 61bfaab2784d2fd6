#include "cli/RxWriter.h"

#include "utils/RxJson.h"

#include <QFileDevice>
#include <QJsonDocument>

namespace OrviaGonioManager::Cli {

bool RxWriter::isFormat(const QString& format)
{
    return format == QLatin1String("csv") || format == QLatin1String("jsonl") ||
           format == QLatin1String("npr");
}

RxWriter::RxWriter(QIODevice& out, const QString& format, const Com::GnxLink& link,
                   Com::GnxLink::CoordType_t coordType)
    : out_(out), format_(format), link_(link), coordType_(coordType)
{}

bool RxWriter::begin()
{
    if (format_ != QLatin1String("csv"))
        return true;
    return put(Utils::RxTableModel::headerTexts().join(QLatin1Char(',')));
}

bool RxWriter::write(const Utils::RxTableModel::Row& row)
{
    if (format_ == QLatin1String("csv"))
        return put(Utils::RxTableModel::exportLine(row, coordType_));
    if (format_ == QLatin1String("npr"))
        return put(link_.toNprLine(row.message));
    return put(QString::fromUtf8(QJsonDocument(Utils::rxJson(row)).toJson(QJsonDocument::Compact)));
}

bool RxWriter::put(const QString& line)
{
    // The CSV is the export's, in Latin-1; JSON is UTF-8.
    const QByteArray bytes = (format_ == QLatin1String("jsonl") ? line.toUtf8() : line.toLatin1()) + '\n';
    if (out_.write(bytes) != bytes.size())
        return false;
    if (auto* file = qobject_cast<QFileDevice*>(&out_))
        return file->flush();
    return true;
}

} // namespace OrviaGonioManager::Cli
