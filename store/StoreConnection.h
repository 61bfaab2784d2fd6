#pragma once

#include <QString>

class QSqlError;

namespace OrviaGonioManager::Store {

// Opening the message store's database under a Qt SQL connection name: the checks and settings
// each engine needs, and failures in words that name the file or the URL.
namespace StoreConnection {

// The driver's text of an error, never empty.
QString sqlText(const QSqlError& error);
// The URL with any password taken out, also from text that is not a valid URL.
QString withoutPassword(const QString& url);
// An SQLite file; readOnly opens it for reading only and never makes one.
bool openSqlite(const QString& connection, const QString& path, bool readOnly, QString* error);
// text is a postgresql:// URL; shown is how messages name it. readOnly makes every transaction so.
bool openPostgres(const QString& connection, const QString& text, const QString& shown, bool readOnly,
                  QString* error);
// Closes the connection and lets Qt forget it.
void remove(const QString& connection);

} // namespace StoreConnection

} // namespace OrviaGonioManager::Store
