#pragma once

#include "geo/TileMath.h"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <memory>
#include <optional>

class QSqlQuery;
class QThread;

namespace OrviaGonioManager::Store {

// An MBTiles 1.3 file (SQLite, through Qt SQL): map tiles with the metadata that names them. Its
// rows count y from the south (TMS); this class takes and gives XYZ tiles, y from the north.
// Each object has a database connection of its own: use it in the thread that opened it.
class MbTiles
{
public:
    // Opens a file to read tiles, never to change it. Null, with the reason in *error, for a
    // missing file, a file that is not SQLite, or one without the tiles and metadata tables.
    static std::unique_ptr<MbTiles> open(const QString& path, QString* error);
    // Opens a file to add tiles to: a new one is made whole (tables and metadata) under a
    // temporary name and then renamed into place, never over anything; an MBTiles file already
    // there keeps its tiles and takes the metadata given. Anything at path but a regular file,
    // or a regular file that is not MBTiles, is refused.
    static std::unique_ptr<MbTiles> create(const QString& path, const QMap<QString, QString>& metadata,
                                           QString* error);
    // Tiles put but not committed are dropped, as if the job had never fetched them.
    ~MbTiles();
    MbTiles(const MbTiles&) = delete;
    MbTiles& operator=(const MbTiles&) = delete;

    QString path() const { return path_; }
    bool isWritable() const { return writable_; }

    // The tile's bytes as stored (PNG, JPEG...), or nothing when the file does not have it or
    // cannot be read (errorString() then says why).
    std::optional<QByteArray> tile(const Geo::TileId& id) const;
    bool contains(const Geo::TileId& id) const;
    qint64 tileCount() const;
    QMap<QString, QString> metadata() const;
    // From the metadata's minzoom and maxzoom, else from the tiles; -1 for a file with none.
    int minZoom() const { return minZoom_; }
    int maxZoom() const { return maxZoom_; }

    // Writing: put() adds to the current batch (a transaction), commit() makes it part of the
    // file. A file is always whole: a job stopped between two commits leaves the tiles of the
    // batches it committed.
    bool put(const Geo::TileId& id, const QByteArray& data);
    bool setMetadata(const QMap<QString, QString>& metadata);
    bool commit();
    int uncommitted() const { return uncommitted_; }

    // What the last failed call met, naming the file.
    QString errorString() const { return error_; }

private:
    MbTiles(const QString& path, const QString& connection, bool writable);
    bool connect(QString* error);
    bool check(QString* error);
    void readZooms();
    bool begin();
    bool fail(const QSqlQuery& query, const QString& what) const;
    // A connection serves only the thread that made it.
    bool inOwnThread() const;

    QString path_;
    QString connection_;
    QThread* owner_;
    bool writable_ = false;
    bool inTransaction_ = false;
    int uncommitted_ = 0;
    int minZoom_ = -1;
    int maxZoom_ = -1;
    mutable QString error_;
    // Prepared once; a query may only live as long as the connection, so they go first.
    std::unique_ptr<QSqlQuery> select_;
    std::unique_ptr<QSqlQuery> exists_;
    std::unique_ptr<QSqlQuery> insert_;
};

} // namespace OrviaGonioManager::Store
