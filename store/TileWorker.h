#pragma once

#include "geo/TileMath.h"
#include "store/MbTiles.h"

#include <QHash>
#include <QObject>
#include <QTimer>

#include <memory>

namespace OrviaGonioManager::Store {

class TileFetcher;

// TileSource's half in its own thread: every file and network access the map's tiles need, so
// that the window never waits for a disk or a server. Each answer carries the generation of the
// request it answers; TileSource drops those of requests it has cancelled.
class TileWorker : public QObject
{
    Q_OBJECT

public:
    explicit TileWorker(QObject* parent = nullptr);
    // Commits the tiles the cache took.
    ~TileWorker() override;

    void setMbTiles(const QString& path);
    // An empty template turns the server off; an empty folder means the user's cache folder.
    void setServer(const QString& urlTemplate, const QString& attribution, const QString& cacheDirectory);
    void request(const Geo::TileId& id, quint64 generation);
    void cancel();

signals:
    void ready(Geo::TileId id, QByteArray data, quint64 generation);
    void missing(Geo::TileId id, quint64 generation);
    void problem(QString message);
    void fileAttribution(QString attribution);

private:
    void onFetched(const Geo::TileId& id, const QByteArray& data);
    void onFailed(const Geo::TileId& id, int httpStatus, const QString& reason);
    void report(const QString& message);
    void commitCache();

    std::unique_ptr<MbTiles> file_;
    std::unique_ptr<MbTiles> cache_;
    TileFetcher* fetcher_;
    QHash<Geo::TileId, quint64> fetching_;
    // Tiles from the server go into the cache in batches.
    QTimer commitTimer_;
    // A fault is told once, not once a tile, until things work again.
    QString lastProblem_;
};

} // namespace OrviaGonioManager::Store
