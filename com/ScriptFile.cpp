#include "com/ScriptFile.h"

#include "mrl/utils/Exception.h"

#include <QFile>
#include <QTextStream>

#include <algorithm>

namespace OrviaGonioManager::Com::ScriptFile {

QStringList readLines(const QString& fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        throw MRL::Utils::Exception(QStringLiteral("Unable to GNX script file %1").arg(fileName), 2);
    QTextStream in(&file);
    QStringList lines;
    while (!in.atEnd())
        lines << in.readLine();
    return lines;
}

int commandCount(const QStringList& lines)
{
    return int(std::count_if(lines.begin(), lines.end(),
                             [](const QString& line) { return line.startsWith(QLatin1Char('$')); }));
}

void open(Utils::OutputFile& file, const QString& fileName)
{
    file.setFileName(fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
        throw MRL::Utils::Exception(QStringLiteral("Unable to open GNX script file %1").arg(fileName), 2);
}

void write(Utils::OutputFile& file, const QString& fileName, const QStringList& frames)
{
    QTextStream out(file.device());
    for (const QString& frame : frames)
        out << frame << '\n';
    out.flush();
    if (out.status() != QTextStream::Ok || !file.commit())
        throw MRL::Utils::Exception(
            QStringLiteral("Unable to write GNX script file %1 (%2)").arg(fileName, file.errorString()), 2);
}

void play(GnxLink& link, const QStringList& lines, const QString& fileName,
          const std::function<void(const QString& message)>& lineFailed,
          const std::function<bool(int sent)>& more)
{
    int sent = 0;
    for (int i = 0; i < lines.size(); ++i) {
        if (!lines[i].startsWith(QLatin1Char('$')))
            continue;
        try {
            link.sendManualCommand(lines[i]);
        } catch (const MRL::Utils::Exception& e) {
            const QString message =
                QStringLiteral("GNX script %1, line %2: %3").arg(fileName).arg(i + 1).arg(e.message());
            // Without a link every further line would fail the same way.
            if (!link.isUsable())
                throw MRL::Utils::Exception(message, e.severity());
            lineFailed(message);
        }
        if (!more(++sent))
            break;
    }
}

} // namespace OrviaGonioManager::Com::ScriptFile
