#include "mrl/utils/Settings.h"

#include "mrl/utils/Exception.h"

namespace MRL::Utils {

Settings::Settings(const QFileInfo& file) : file_(file) {}

std::unique_ptr<QSettings> Settings::getSettings(SettingsOperation_t operation) const
{
    // Reading and writing use the same INI object; the operation only documents intent.
    Q_UNUSED(operation);
    return std::make_unique<QSettings>(file_.filePath(), QSettings::IniFormat);
}

QVariant Settings::loadVariable(const QSettings& settings, const QString& key)
{
    if (!settings.contains(key))
        throw Exception(QStringLiteral("Missing key %1 in settings file %2").arg(key, settings.fileName()),
                        2);
    return settings.value(key);
}

} // namespace MRL::Utils
