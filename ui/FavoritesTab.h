#pragma once

// Helpers shared by the two halves of the "Favorite platforms" tab: the platforms
// (MainWindowPlatforms.cpp) and the GPS formats (MainWindowGpsFormats.cpp).
#include "mrl/utils/Exception.h"

#include <QComboBox>
#include <QItemSelectionModel>
#include <QTableWidget>

namespace OrviaGonioManager::Ui::FavoritesTab {

inline MRL::Utils::Exception inconsistency(const QString& name)
{
    return MRL::Utils::Exception(QStringLiteral("GPS Fomat inconsistency for format %1").arg(name), 2);
}

// Entries after "No GPS Format"; -1 when absent.
inline int formatEntry(const QComboBox* combo, const QString& name)
{
    for (int i = 1; i < combo->count(); ++i)
        if (combo->itemText(i) == name)
            return i;
    return -1;
}

inline int selectedRow(const QTableWidget* table)
{
    const QModelIndexList rows = table->selectionModel()->selectedRows();
    return rows.isEmpty() ? -1 : rows.first().row();
}

} // namespace OrviaGonioManager::Ui::FavoritesTab
