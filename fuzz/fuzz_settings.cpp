// The settings file: any bytes in "OrviaGonioManager.ini", loaded as at start-up (a missing or
// partial file is rewritten with defaults), then loaded again: the second load keeps the values.
#include "app/Settings.h"
#include "mrl/utils/Exception.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdlib>

using OrviaGonioManager::Utils::Settings;

namespace {

void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const auto previous = qInstallMessageHandler(quiet); // "Load default values" every run
    (void)previous;
    // In memory where the system has it: a run is a file written and read twice.
    static QTemporaryDir dir(QDir(QStringLiteral("/dev/shm")).exists()
                                 ? QStringLiteral("/dev/shm/ogm-fuzz-XXXXXX")
                                 : QDir::tempPath() + QStringLiteral("/ogm-fuzz-XXXXXX"));
    const QString path = dir.filePath(QStringLiteral("OrviaGonioManager.ini"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return 0;
    file.write(reinterpret_cast<const char*>(data), qint64(size));
    file.close();
    try {
        Settings first{QFileInfo(path)};
        first.load();
        Settings second{QFileInfo(path)};
        second.load();
        if (first.gnxCommandTimeoutMs != second.gnxCommandTimeoutMs ||
            first.keepAlivePeriodMs != second.keepAlivePeriodMs ||
            first.nprMessagesFormat != second.nprMessagesFormat)
            std::abort();
    } catch (const MRL::Utils::Exception&) {
        // An unreadable file is reported with its text.
    }
    return 0;
}
