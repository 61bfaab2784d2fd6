#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

namespace OrviaGonioManager::Utils {

// A firmware image (*.van): a first line naming the receiver generation and the version, then one
// record a line, lines ended by CR.
struct FirmwareFile
{
    QString version;           // as the first line gives it
    QList<QByteArray> records; // what is uploaded, one WRDA each

    // Throws MRL::Utils::Exception, code 2, with the texts the window shows: "Unable to read GNX
    // firmware file %1: not enought data", "Unable to decode first line of file %1.",
    // "Incompatible GNX version (%1 vs %2)." (the file's generation against deviceVersion).
    static FirmwareFile parse(const QByteArray& content, const QString& fileName, int deviceVersion);
};

} // namespace OrviaGonioManager::Utils
