#include "app/Settings.h"

#include "mrl/utils/Exception.h"

#include <QDebug>

namespace OrviaGonioManager::Utils {

Settings::Settings(const QFileInfo& file) : MRL::Utils::Settings(file) {}

namespace {
Settings* g_instance = nullptr;
}

Settings& Settings::instance()
{
    if (!g_instance) {
        g_instance = new Settings;
        g_instance->load();
    }
    return *g_instance;
}

void Settings::useFile(const QString& path)
{
    if (!path.isEmpty() && !QFileInfo(path).isReadable())
        throw MRL::Utils::Exception(QStringLiteral("Unable to read settings file %1").arg(path), 2);
    auto* settings = new Settings(QFileInfo(path));
    if (!path.isEmpty())
        settings->load(false);
    delete g_instance;
    g_instance = settings;
}

void Settings::load(bool createMissing)
{
    const auto ini = getSettings(SETTINGS_READ);
    try {
        // Read in order: a missing key keeps what was read before it and defaults after it.
        printUartDebugInfo = loadVariable(*ini, QStringLiteral("printUartDebugInfo")).toBool();
        printAtCmdDebugInfo = loadVariable(*ini, QStringLiteral("printAtCmdDebugInfo")).toBool();
        gnxCommandTimeoutMs = loadVariable(*ini, QStringLiteral("gnxCommandTimeoutMs")).toInt();
        keepAliveTimeoutMs = loadVariable(*ini, QStringLiteral("keepAliveTimeoutMs")).toInt();
        keepAlivePeriodMs = loadVariable(*ini, QStringLiteral("keepAlivePeriodMs")).toInt();
        keepChecksumErrorOnNprGnx134 =
            loadVariable(*ini, QStringLiteral("keepChecksumErrorOnNprGnx134")).toBool();
        nprMessagesFormat = loadVariable(*ini, QStringLiteral("nprMessagesFormat")).toInt();
    } catch (const MRL::Utils::Exception&) {
        if (!createMissing)
            return;
        qDebug().noquote() << "Load default values. Creation of a new settings file.";
        save();
    }
}

void Settings::save() const
{
    const auto ini = getSettings(SETTINGS_WRITE);
    const auto number = [](qint64 v) { return QString::number(v); };
    ini->setValue(QStringLiteral("printUartDebugInfo"), number(printUartDebugInfo));
    ini->setValue(QStringLiteral("printAtCmdDebugInfo"), number(printAtCmdDebugInfo));
    ini->setValue(QStringLiteral("gnxCommandTimeoutMs"), number(gnxCommandTimeoutMs));
    ini->setValue(QStringLiteral("keepAliveTimeoutMs"), number(keepAliveTimeoutMs));
    ini->setValue(QStringLiteral("keepAlivePeriodMs"), number(keepAlivePeriodMs));
    ini->setValue(QStringLiteral("keepChecksumErrorOnNprGnx134"), number(keepChecksumErrorOnNprGnx134));
    ini->setValue(QStringLiteral("nprMessagesFormat"), number(nprMessagesFormat));
    ini->sync();
}

} // namespace OrviaGonioManager::Utils
