#include "store/StoreConnection.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QUrl>

namespace OrviaGonioManager::Store::StoreConnection {

namespace {

// SQLITE_BUSY or SQLITE_LOCKED: another connection holds the file.
bool busy(const QSqlError& e)
{
    return e.nativeErrorCode() == QLatin1String("5") || e.nativeErrorCode() == QLatin1String("6");
}

} // namespace

QString sqlText(const QSqlError& e)
{
    const QString text = e.text().trimmed();
    return text.isEmpty() ? QStringLiteral("unknown database error") : text;
}

QString withoutPassword(const QString& url)
{
    static const QRegularExpression password(QStringLiteral("^([A-Za-z][A-Za-z0-9+.-]*://[^:@/]*):[^@/]*@"));
    QString shown = url;
    shown.replace(password, QStringLiteral("\\1@"));
    return shown;
}

void remove(const QString& name)
{
    {
        QSqlDatabase db = QSqlDatabase::database(name, false);
        if (db.isOpen())
            db.close();
    }
    QSqlDatabase::removeDatabase(name);
}

bool openSqlite(const QString& connection, const QString& path, bool readOnly, QString* error)
{
    const QFileInfo file(path);
    if (!QSqlDatabase::isDriverAvailable(QStringLiteral("QSQLITE"))) {
        *error = QStringLiteral("%1: cannot open it: the Qt SQLite driver (QSQLITE, Debian package "
                                "libqt6sql6-sqlite) is not installed")
                     .arg(path);
        return false;
    }
    if (readOnly && !file.exists()) {
        *error = QStringLiteral("%1: no such store").arg(path);
        return false;
    }
    if (!file.dir().exists()) {
        *error = QStringLiteral("%1: cannot make the store: the directory %2 does not exist")
                     .arg(path, QDir::toNativeSeparators(file.absolutePath()));
        return false;
    }
    if (file.exists() && !file.isFile()) {
        *error = QStringLiteral("%1: not a file").arg(path);
        return false;
    }
    if (!readOnly && file.exists() && !file.isWritable()) {
        *error = QStringLiteral("%1: the file is read-only: the store writes to it").arg(path);
        return false;
    }
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connection);
    db.setDatabaseName(path);
    // The window and gnxctl may use one file at once.
    db.setConnectOptions(readOnly ? QStringLiteral("QSQLITE_BUSY_TIMEOUT=5000;QSQLITE_OPEN_READONLY")
                                  : QStringLiteral("QSQLITE_BUSY_TIMEOUT=5000"));
    if (!db.open()) {
        *error = QStringLiteral("%1: cannot open: %2").arg(path, sqlText(db.lastError()));
        return false;
    }
    QSqlQuery q(db);
    // A store kept in WAL mode, read where its -shm file cannot be made (a copy on a read-only
    // medium, another user's directory) and with no writer at work (no -wal file): SQLite reads
    // it only as a file that does not change.
    if (readOnly && !q.exec(QStringLiteral("PRAGMA schema_version")) &&
        !QFileInfo::exists(path + QStringLiteral("-wal"))) {
        q = QSqlQuery();
        db.close();
        QUrl uri = QUrl::fromLocalFile(file.absoluteFilePath());
        uri.setQuery(QStringLiteral("immutable=1"));
        db.setDatabaseName(uri.toString());
        db.setConnectOptions(QStringLiteral("QSQLITE_OPEN_READONLY;QSQLITE_OPEN_URI"));
        if (!db.open()) {
            *error = QStringLiteral("%1: cannot open: %2").arg(path, sqlText(db.lastError()));
            return false;
        }
        q = QSqlQuery(db);
    }
    const QStringList pragmas = readOnly ? QStringList{QStringLiteral("PRAGMA schema_version")}
                                         : QStringList{QStringLiteral("PRAGMA foreign_keys = ON"),
                                                       QStringLiteral("PRAGMA journal_mode = WAL")};
    for (const QString& pragma : pragmas) {
        // Busy switching to WAL: another program opening the file at this moment has switched it.
        if (!q.exec(pragma) && !(pragma.contains(QLatin1String("journal_mode")) && busy(q.lastError()))) {
            *error = QStringLiteral("%1: not a message store: %2").arg(path, sqlText(q.lastError()));
            return false;
        }
    }
    return true;
}

bool openPostgres(const QString& connection, const QString& text, const QString& shown, bool readOnly,
                  QString* error)
{
    const QUrl url(text, QUrl::StrictMode);
    const QString database = url.path().mid(1);
    if (!url.isValid() || url.host().isEmpty() || database.isEmpty() || database.contains(QLatin1Char('/'))) {
        *error = QStringLiteral("%1: not a PostgreSQL URL: expected postgresql://user@host:port/database")
                     .arg(shown);
        return false;
    }
    if (!QSqlDatabase::isDriverAvailable(QStringLiteral("QPSQL"))) {
        *error = QStringLiteral("%1: cannot connect: the Qt PostgreSQL driver (QPSQL, Debian package "
                                "libqt6sql6-psql) is not installed")
                     .arg(shown);
        return false;
    }
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), connection);
    db.setHostName(url.host());
    db.setPort(url.port(5432));
    db.setDatabaseName(database);
    db.setUserName(url.userName());
    // Without one in the URL, libpq looks in PGPASSWORD and ~/.pgpass.
    db.setPassword(url.password());
    db.setConnectOptions(QStringLiteral("connect_timeout=10"));
    if (!db.open()) {
        *error = QStringLiteral("%1: cannot connect: %2").arg(shown, sqlText(db.lastError()));
        return false;
    }
    QSqlQuery q(db);
    // Notices ("relation already exists") are not ours to show.
    q.exec(QStringLiteral("SET client_min_messages = warning"));
    if (readOnly && !q.exec(QStringLiteral("SET default_transaction_read_only = on"))) {
        *error = QStringLiteral("%1: cannot connect: %2").arg(shown, sqlText(q.lastError()));
        return false;
    }
    return true;
}

} // namespace OrviaGonioManager::Store::StoreConnection
