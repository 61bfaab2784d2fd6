#include "com/PlatformsFile.h"

#include "com/PlatformCodec.h"
#include "mrl/utils/Exception.h"

#include <QFile>
#include <QTextStream>

namespace OrviaGonioManager::Com::PlatformsFile {

QString header(GnxLink::GnxVersion_t version)
{
    return QStringLiteral("#,") + GnxLink::platformTitles().value(int(version)).join(QLatin1Char(','));
}

QStringList readLines(const QString& fileName)
{
    QStringList lines;
    for (const NumberedLine& line : readNumberedLines(fileName))
        lines << line.text;
    return lines;
}

QList<NumberedLine> readNumberedLines(const QString& fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        throw MRL::Utils::Exception(QStringLiteral("Unable to open platforms file %1").arg(fileName), 2);
    QList<NumberedLine> lines;
    int number = 0;
    for (QTextStream in(&file); !in.atEnd();) {
        const QString line = in.readLine();
        ++number;
        if (!line.isEmpty() && !line.startsWith(QLatin1Char('#')))
            lines.append({number, line});
    }
    return lines;
}

GnxLink::PlatformInfo parseLine(const QString& line, GnxLink::GnxVersion_t version, const QString& fileName)
{
    const qsizetype columns = GnxLink::platformTitles().value(int(version)).size();
    const QStringList fields = line.split(QLatin1Char(','));
    if (fields.size() != columns)
        throw MRL::Utils::Exception(
            QStringLiteral("Unable to read platforms file %1, wrong number of columns. Columns shoud be %2.")
                .arg(fileName)
                .arg(columns),
            2);
    return PlatformCodec::fromCsvFields(fields, version, fileName);
}

int importLines(GnxLink& link, const QStringList& lines, const QString& fileName,
                const std::function<bool(int written)>& more)
{
    int written = 0;
    for (const QString& line : lines) {
        if (written >= link.maxPlatformsNumber())
            throw MRL::Utils::Exception(
                QStringLiteral("Unable to read import whole platform file %1, too many platforms.")
                    .arg(fileName),
                2);
        GnxLink::PlatformInfo p = parseLine(line, link.version(), fileName);
        p.index = written;
        link.setPlatformInfo(p, false);
        if (!more(++written))
            break;
    }
    return written;
}

} // namespace OrviaGonioManager::Com::PlatformsFile
