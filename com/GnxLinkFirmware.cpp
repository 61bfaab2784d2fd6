#include "com/GnxLink.h"

#include "app/Settings.h"
#include "mrl/utils/Exception.h"

#include <QDebug>

namespace OrviaGonioManager::Com {

namespace {

// A file split at carriage returns keeps the line feed of CR LF ends, and a final line end leaves
// an empty record: neither is part of the firmware, and a line feed would cut the frame.
QList<QByteArray> firmwareRecords(const QList<QByteArray>& lines)
{
    QList<QByteArray> records;
    records.reserve(lines.size());
    for (QByteArray line : lines) {
        while (!line.isEmpty() && (line.front() == '\n' || line.front() == '\r'))
            line.remove(0, 1);
        while (!line.isEmpty() && (line.back() == '\n' || line.back() == '\r'))
            line.chop(1);
        if (!line.isEmpty())
            records.append(line);
    }
    return records;
}

} // namespace

void GnxLink::switchMode()
{
    const GnxDeviceInfo info = readDeviceInfo();
    if (info.mode == GNX_APP)
        sendBlockingRequest(CMD_SUA);
    else if (info.mode == GNX_BL)
        sendBlockingRequest(CMD_REBO);
}

void GnxLink::uploadFirmware(const QList<QByteArray>& lines)
{
    const GnxDeviceInfo info = readDeviceInfo();
    if (info.mode != GNX_BL)
        throw MRL::Utils::Exception(
            QStringLiteral("Unable to flash firmware, GNX is not in BL mode (%1)").arg(int(info.mode)), 2);
    const QList<QByteArray> records = firmwareRecords(lines);
    if (records.isEmpty()) // refused before the erase, which would leave no application
        throw MRL::Utils::Exception(QStringLiteral("Unable to flash firmware, no firmware data"), 2);

    qInfo().noquote() << QStringLiteral("Unlocking bootloader...");
    sendBlockingRequest(CMD_ATBL);
    qInfo().noquote() << QStringLiteral("Erase previous firmware...");
    sendBlockingRequest(CMD_ERRF);

    // Thousands of records: keep them out of the command trace. Left off if the loop throws.
    auto& settings = Utils::Settings::instance();
    const bool printAtCmdDebugInfo = settings.printAtCmdDebugInfo;
    settings.printAtCmdDebugInfo = false;
    const int total = int(records.size());
    quint8 previousPercent = 0;
    for (int n = 1; n <= total; ++n) {
        const auto percent = quint8(double(n) * 100.0 / double(total));
        if (percent != previousPercent) {
            qInfo().noquote()
                << QStringLiteral("%1% uploaded (line %2 on %3)...").arg(int(percent)).arg(n).arg(total);
            previousPercent = percent;
        }
        sendBlockingRequest(CMD_WRDA, {QString::fromUtf8(records[n - 1])});
        emit sigFirmwareProgress(n, total);
    }
    qInfo().noquote() << QStringLiteral("Upload complete.");
    settings.printAtCmdDebugInfo = printAtCmdDebugInfo;

    qInfo().noquote() << QStringLiteral("Locking bootloader...");
    sendBlockingRequest(CMD_WRSC);
    qInfo().noquote() << QStringLiteral("Upgrade OK. Reboot.");
    sendBlockingRequest(CMD_REBO);
}

} // namespace OrviaGonioManager::Com
