#pragma once

#include <QSettings>

namespace OrviaGonioManager::Ui {

// The window's own preferences (reconnection, terminal history and filters), in the user's scope:
// never the program's settings file, whose keys stay as they are.
inline QSettings userSettings()
{
    return QSettings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Orvia"),
                     QStringLiteral("OrviaGonioManager"));
}

} // namespace OrviaGonioManager::Ui
