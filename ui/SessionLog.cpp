#include "ui/SessionLog.h"

#include "mrl/utils/Exception.h"

#include <QCoreApplication>
#include <QDir>
#include <QRegularExpression>

namespace OrviaGonioManager::Ui {

QString SessionLog::defaultDirectory()
{
    return QDir(QCoreApplication::applicationDirPath() + QStringLiteral("/../Logs")).absolutePath();
}

QString SessionLog::fileSafe(const QString& text)
{
    static const QRegularExpression unsafe(QStringLiteral("[^A-Za-z0-9._-]+"));
    QString safe = text;
    safe.replace(unsafe, QStringLiteral("_"));
    while (safe.startsWith(QLatin1Char('_')) || safe.startsWith(QLatin1Char('.')))
        safe.remove(0, 1);
    return safe.isEmpty() ? QStringLiteral("unknown") : safe;
}

void SessionLog::open(const QString& directory, const QString& identity)
{
    close();
    QDir dir(directory);
    dir.mkpath(QStringLiteral("."));
    file_.setFileName(QStringLiteral("%1/Log %2.txt").arg(dir.absolutePath(), identity));
    const bool existed = file_.exists();
    if (!file_.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text))
        throw MRL::Utils::Exception(QStringLiteral("Unable to open log file %1").arg(file_.fileName()), 2);
    if (existed)
        file_.write("\n\n\n");
    file_.flush();
}

void SessionLog::writeLine(const QString& line)
{
    if (!file_.isOpen())
        return;
    file_.write(line.toUtf8());
    file_.write("\n");
    file_.flush();
}

void SessionLog::close()
{
    if (file_.isOpen())
        file_.close();
}

} // namespace OrviaGonioManager::Ui
