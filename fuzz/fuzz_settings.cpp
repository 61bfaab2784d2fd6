// The settings file: any bytes in "OrviaGonioManager.ini", loaded as at start-up (a missing or
// partial file is rewritten with defaults), then loaded again: the second load keeps the values.
#include "FuzzFile.h"
#include "app/Settings.h"
#include "mrl/utils/Exception.h"

#include <cstdlib>

using OrviaGonioManager::Utils::Settings;

namespace {

void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const auto previous = qInstallMessageHandler(quiet); // "Load default values" every run
    (void)previous;
    const QString path = fuzzFile(QStringLiteral("OrviaGonioManager.ini"), data, size);
    if (path.isEmpty())
        return 0;
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
