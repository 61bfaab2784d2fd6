#include "utils/FirmwareFile.h"

#include "mrl/utils/Exception.h"

#include <QRegularExpression>

namespace OrviaGonioManager::Utils {

FirmwareFile FirmwareFile::parse(const QByteArray& content, const QString& fileName, int deviceVersion)
{
    QList<QByteArray> lines = content.split('\r');
    if (lines.size() < 2)
        throw MRL::Utils::Exception(
            QStringLiteral("Unable to read GNX firmware file %1: not enought data").arg(fileName), 2);

    static const QRegularExpression firstLine(
        QStringLiteral("^VANTOR GONIO_V(?<gonioVersion>[0-9]+) FIRMWARE VERSION : (?<firmwareVersion>.+)$"));
    const auto match = firstLine.match(QString::fromUtf8(lines.first()).trimmed());
    if (!match.hasMatch())
        throw MRL::Utils::Exception(QStringLiteral("Unable to decode first line of file %1.").arg(fileName),
                                    2);
    const QString gonioVersion = match.captured(QStringLiteral("gonioVersion"));
    if (gonioVersion.toUInt() != uint(deviceVersion))
        throw MRL::Utils::Exception(
            QStringLiteral("Incompatible GNX version (%1 vs %2).").arg(gonioVersion).arg(deviceVersion), 2);

    lines.removeFirst();
    return {match.captured(QStringLiteral("firmwareVersion")), lines};
}

} // namespace OrviaGonioManager::Utils
