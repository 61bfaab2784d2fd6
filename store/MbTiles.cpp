#include "store/MbTiles.h"

#include <QAtomicInteger>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QThread>

namespace OrviaGonioManager::Store {

namespace {

const QString kDriver = QStringLiteral("QSQLITE");
// Another program (or our own cache writer) may hold the file for a moment.
const QString kBusy = QStringLiteral("QSQLITE_BUSY_TIMEOUT=5000");

QString newConnectionName()
{
    static QAtomicInteger<quint64> counter;
    return QStringLiteral("ogm-mbtiles-%1").arg(counter.fetchAndAddRelaxed(1));
}

QString shown(const QString& path)
{
    return QDir::toNativeSeparators(path);
}

QString sqlText(const QSqlError& e)
{
    const QString text = e.text().trimmed();
    return text.isEmpty() ? QStringLiteral("unknown SQLite error") : text;
}

int tmsRow(const Geo::TileId& id)
{
    return (1 << id.z) - 1 - id.y;
}

// The layout of MBTiles 1.3, with the unique indexes its readers expect.
const char* const kSchema[] = {
    "CREATE TABLE metadata (name TEXT, value TEXT)",
    "CREATE UNIQUE INDEX name ON metadata (name)",
    "CREATE TABLE tiles (zoom_level INTEGER, tile_column INTEGER, tile_row INTEGER, tile_data BLOB)",
    "CREATE UNIQUE INDEX tile_index ON tiles (zoom_level, tile_column, tile_row)",
};

void removeConnection(const QString& name)
{
    {
        QSqlDatabase db = QSqlDatabase::database(name, false);
        if (db.isOpen())
            db.close();
    }
    QSqlDatabase::removeDatabase(name);
}

// A new file made whole beside its final name: tables and metadata, then closed.
bool makeNewFile(const QString& tempPath, const QMap<QString, QString>& metadata, QString* error)
{
    const QString connection = newConnectionName();
    bool ok = false;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(kDriver, connection);
        db.setDatabaseName(tempPath);
        if (!db.open()) {
            *error = sqlText(db.lastError());
        } else if (!db.transaction()) {
            *error = sqlText(db.lastError());
        } else {
            QSqlQuery q(db);
            ok = true;
            for (const char* statement : kSchema) {
                if (!q.exec(QString::fromLatin1(statement))) {
                    *error = sqlText(q.lastError());
                    ok = false;
                    break;
                }
            }
            if (ok) {
                q.prepare(QStringLiteral("INSERT INTO metadata (name, value) VALUES (?, ?)"));
                for (auto it = metadata.cbegin(); ok && it != metadata.cend(); ++it) {
                    q.addBindValue(it.key());
                    q.addBindValue(it.value());
                    if (!q.exec()) {
                        *error = sqlText(q.lastError());
                        ok = false;
                    }
                }
            }
            q.finish();
            if (ok && !db.commit()) {
                *error = sqlText(db.lastError());
                ok = false;
            }
        }
    }
    removeConnection(connection);
    return ok;
}

} // namespace

MbTiles::MbTiles(const QString& path, const QString& connection, bool writable)
    : path_(path), connection_(connection), owner_(QThread::currentThread()), writable_(writable)
{}

MbTiles::~MbTiles()
{
    if (inTransaction_)
        QSqlDatabase::database(connection_, false).rollback();
    select_.reset();
    exists_.reset();
    insert_.reset();
    removeConnection(connection_);
}

std::unique_ptr<MbTiles> MbTiles::open(const QString& path, QString* error)
{
    const QFileInfo info(path);
    if (!info.exists()) {
        *error = QStringLiteral("%1: no such file").arg(shown(path));
        return nullptr;
    }
    if (!info.isFile()) {
        *error = QStringLiteral("%1: not a regular file").arg(shown(path));
        return nullptr;
    }
    std::unique_ptr<MbTiles> file(new MbTiles(info.absoluteFilePath(), newConnectionName(), false));
    if (!file->connect(error) || !file->check(error))
        return nullptr;
    file->readZooms();
    return file;
}

std::unique_ptr<MbTiles> MbTiles::create(const QString& path, const QMap<QString, QString>& metadata,
                                         QString* error)
{
    const QFileInfo info(path);
    const QString absolute = info.absoluteFilePath();
    if (info.isSymLink() && !info.exists()) {
        *error =
            QStringLiteral("%1: a symbolic link to a missing file; nothing was written").arg(shown(path));
        return nullptr;
    }
    if (info.exists() && !info.isFile()) {
        *error = QStringLiteral("%1: not a regular file; nothing was written").arg(shown(path));
        return nullptr;
    }
    if (!info.exists()) {
        // A random name beside it, so that the rename stays on one file system.
        const QString temp = QStringLiteral("%1/.%2.%3.part")
                                 .arg(info.absolutePath(), info.fileName())
                                 .arg(QRandomGenerator::global()->generate64(), 16, 16, QLatin1Char('0'));
        QString cause;
        const bool made = makeNewFile(temp, metadata, &cause);
        if (!made || !QFile::rename(temp, absolute)) {
            if (made)
                cause = QFileInfo::exists(absolute) ? QStringLiteral("another file appeared under that name")
                                                    : QStringLiteral("cannot rename the new file into place");
            QFile::remove(temp);
            QFile::remove(temp + QStringLiteral("-journal"));
            *error = QStringLiteral("%1: cannot create: %2").arg(shown(path), cause);
            return nullptr;
        }
    }
    std::unique_ptr<MbTiles> file(new MbTiles(absolute, newConnectionName(), true));
    if (!file->connect(error) || !file->check(error))
        return nullptr;
    file->readZooms();
    if (info.exists() && !metadata.isEmpty() && !(file->setMetadata(metadata) && file->commit())) {
        *error = file->errorString();
        return nullptr;
    }
    return file;
}

bool MbTiles::connect(QString* error)
{
    if (!QSqlDatabase::isDriverAvailable(kDriver)) {
        *error = QStringLiteral("%1: cannot read it: the Qt SQLite driver (QSQLITE, Debian package "
                                "libqt6sql6-sqlite) is not installed")
                     .arg(shown(path_));
        return false;
    }
    QSqlDatabase db = QSqlDatabase::addDatabase(kDriver, connection_);
    db.setDatabaseName(path_);
    db.setConnectOptions(writable_ ? kBusy : QStringLiteral("QSQLITE_OPEN_READONLY;") + kBusy);
    if (!db.open()) {
        *error = QStringLiteral("%1: cannot open: %2").arg(shown(path_), sqlText(db.lastError()));
        return false;
    }
    return true;
}

bool MbTiles::check(QString* error)
{
    QSqlDatabase db = QSqlDatabase::database(connection_, false);
    QSqlQuery q(db);
    if (!q.exec(QStringLiteral("SELECT name FROM sqlite_master WHERE name IN ('tiles', 'metadata') "
                               "AND type IN ('table', 'view')"))) {
        *error = QStringLiteral("%1: not an SQLite database (%2)").arg(shown(path_), sqlText(q.lastError()));
        return false;
    }
    QStringList names;
    while (q.next())
        names << q.value(0).toString();
    q.finish();
    for (const QString& table : {QStringLiteral("tiles"), QStringLiteral("metadata")}) {
        if (!names.contains(table)) {
            *error = QStringLiteral("%1: not an MBTiles file: it has no %2 table").arg(shown(path_), table);
            return false;
        }
    }
    select_ = std::make_unique<QSqlQuery>(db);
    exists_ = std::make_unique<QSqlQuery>(db);
    const QString where =
        QStringLiteral(" FROM tiles WHERE zoom_level = ? AND tile_column = ? AND tile_row = ?");
    if (!select_->prepare(QStringLiteral("SELECT tile_data") + where) ||
        !exists_->prepare(QStringLiteral("SELECT 1") + where)) {
        *error = QStringLiteral("%1: not an MBTiles file: its tiles table lacks zoom_level, tile_column, "
                                "tile_row or tile_data (%2)")
                     .arg(shown(path_), sqlText(select_->lastError()));
        return false;
    }
    if (writable_) {
        insert_ = std::make_unique<QSqlQuery>(db);
        if (!insert_->prepare(QStringLiteral("INSERT OR REPLACE INTO tiles (zoom_level, tile_column, "
                                             "tile_row, tile_data) VALUES (?, ?, ?, ?)"))) {
            *error = QStringLiteral("%1: cannot add tiles to it: %2")
                         .arg(shown(path_), sqlText(insert_->lastError()));
            return false;
        }
    }
    return true;
}

void MbTiles::readZooms()
{
    const QMap<QString, QString> meta = metadata();
    bool minOk = false;
    bool maxOk = false;
    const int minZoom = meta.value(QStringLiteral("minzoom")).toInt(&minOk);
    const int maxZoom = meta.value(QStringLiteral("maxzoom")).toInt(&maxOk);
    if (minOk && maxOk && minZoom >= 0 && minZoom <= maxZoom && maxZoom <= Geo::TileMath::kMaxZoom) {
        minZoom_ = minZoom;
        maxZoom_ = maxZoom;
        return;
    }
    QSqlQuery q(QSqlDatabase::database(connection_, false));
    if (q.exec(QStringLiteral("SELECT MIN(zoom_level), MAX(zoom_level) FROM tiles")) && q.next() &&
        !q.isNull(0)) {
        minZoom_ = q.value(0).toInt();
        maxZoom_ = q.value(1).toInt();
    }
}

bool MbTiles::inOwnThread() const
{
    if (QThread::currentThread() == owner_)
        return true;
    error_ = QStringLiteral("%1: used from a thread other than the one that opened it").arg(shown(path_));
    return false;
}

bool MbTiles::fail(const QSqlQuery& query, const QString& what) const
{
    error_ = QStringLiteral("%1: %2: %3").arg(shown(path_), what, sqlText(query.lastError()));
    return false;
}

std::optional<QByteArray> MbTiles::tile(const Geo::TileId& id) const
{
    error_.clear();
    if (!inOwnThread() || !Geo::TileMath::isValid(id))
        return std::nullopt;
    select_->addBindValue(id.z);
    select_->addBindValue(id.x);
    select_->addBindValue(tmsRow(id));
    if (!select_->exec()) {
        fail(*select_, QStringLiteral("cannot read a tile"));
        return std::nullopt;
    }
    std::optional<QByteArray> data;
    if (select_->next())
        data = select_->value(0).toByteArray();
    // Ends the read, so that a writer is not kept waiting.
    select_->finish();
    return data;
}

bool MbTiles::contains(const Geo::TileId& id) const
{
    error_.clear();
    if (!inOwnThread() || !Geo::TileMath::isValid(id))
        return false;
    exists_->addBindValue(id.z);
    exists_->addBindValue(id.x);
    exists_->addBindValue(tmsRow(id));
    const bool found =
        exists_->exec() ? exists_->next() : fail(*exists_, QStringLiteral("cannot read a tile"));
    exists_->finish();
    return found;
}

qint64 MbTiles::tileCount() const
{
    if (!inOwnThread())
        return -1;
    QSqlQuery q(QSqlDatabase::database(connection_, false));
    if (!q.exec(QStringLiteral("SELECT COUNT(*) FROM tiles")) || !q.next()) {
        fail(q, QStringLiteral("cannot count the tiles"));
        return -1;
    }
    return q.value(0).toLongLong();
}

QMap<QString, QString> MbTiles::metadata() const
{
    QMap<QString, QString> meta;
    if (!inOwnThread())
        return meta;
    QSqlQuery q(QSqlDatabase::database(connection_, false));
    if (!q.exec(QStringLiteral("SELECT name, value FROM metadata"))) {
        fail(q, QStringLiteral("cannot read the metadata"));
        return meta;
    }
    while (q.next())
        meta.insert(q.value(0).toString(), q.value(1).toString());
    return meta;
}

bool MbTiles::begin()
{
    if (!inOwnThread())
        return false;
    if (inTransaction_)
        return true;
    QSqlDatabase db = QSqlDatabase::database(connection_, false);
    if (!db.transaction()) {
        error_ = QStringLiteral("%1: cannot start writing: %2").arg(shown(path_), sqlText(db.lastError()));
        return false;
    }
    inTransaction_ = true;
    return true;
}

bool MbTiles::put(const Geo::TileId& id, const QByteArray& data)
{
    if (!writable_) {
        error_ = QStringLiteral("%1: opened to read only").arg(shown(path_));
        return false;
    }
    if (!Geo::TileMath::isValid(id)) {
        error_ = QStringLiteral("%1: no tile %2/%3/%4").arg(shown(path_)).arg(id.z).arg(id.x).arg(id.y);
        return false;
    }
    if (!begin())
        return false;
    insert_->addBindValue(id.z);
    insert_->addBindValue(id.x);
    insert_->addBindValue(tmsRow(id));
    insert_->addBindValue(data);
    if (!insert_->exec())
        return fail(*insert_, QStringLiteral("cannot add tile %1/%2/%3").arg(id.z).arg(id.x).arg(id.y));
    ++uncommitted_;
    minZoom_ = minZoom_ < 0 ? id.z : std::min(minZoom_, id.z);
    maxZoom_ = std::max(maxZoom_, id.z);
    return true;
}

bool MbTiles::setMetadata(const QMap<QString, QString>& metadata)
{
    if (!writable_) {
        error_ = QStringLiteral("%1: opened to read only").arg(shown(path_));
        return false;
    }
    if (!begin())
        return false;
    // Without relying on a unique index, which files made elsewhere may lack.
    QSqlQuery remove(QSqlDatabase::database(connection_, false));
    QSqlQuery insert(QSqlDatabase::database(connection_, false));
    remove.prepare(QStringLiteral("DELETE FROM metadata WHERE name = ?"));
    insert.prepare(QStringLiteral("INSERT INTO metadata (name, value) VALUES (?, ?)"));
    for (auto it = metadata.cbegin(); it != metadata.cend(); ++it) {
        remove.addBindValue(it.key());
        if (!remove.exec())
            return fail(remove, QStringLiteral("cannot write the metadata"));
        insert.addBindValue(it.key());
        insert.addBindValue(it.value());
        if (!insert.exec())
            return fail(insert, QStringLiteral("cannot write the metadata"));
    }
    ++uncommitted_;
    return true;
}

bool MbTiles::commit()
{
    if (!inOwnThread())
        return false;
    if (!inTransaction_)
        return true;
    QSqlDatabase db = QSqlDatabase::database(connection_, false);
    if (!db.commit()) {
        error_ = QStringLiteral("%1: cannot save the tiles: %2").arg(shown(path_), sqlText(db.lastError()));
        return false;
    }
    inTransaction_ = false;
    uncommitted_ = 0;
    return true;
}

} // namespace OrviaGonioManager::Store
