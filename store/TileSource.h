#pragma once

#include "geo/TileMath.h"

#include <QByteArray>
#include <QObject>
#include <QSet>
#include <QString>
#include <QThread>

namespace OrviaGonioManager::Store {

class TileWorker;

// The map's tiles, offline first: an MBTiles file is looked in first, then the disk cache of the
// tile server's tiles, then the server itself (off unless set). Every answer comes as a signal;
// files and the network are read in a thread of the source's own, never in the caller's.
class TileSource : public QObject
{
    Q_OBJECT

public:
    explicit TileSource(QObject* parent = nullptr);
    // Waits for the read or write under way, if any, and commits the cache.
    ~TileSource() override;

    // Changing the file or the server forgets pending requests, as cancelPending() does: ask
    // again for what the map shows. An empty path turns the file off.
    void setMbTiles(const QString& path);
    // urlTemplate has {z}, {x} and {y}; empty turns the server off. Its tiles are kept in an
    // MBTiles file of their own in cacheDirectory (empty: tiles/ in the application's cache
    // folder, ~/.cache/<organisation>/<application>), which serves them when the server is gone.
    void setServer(const QString& urlTemplate, const QString& attribution, const QString& cacheDirectory);

    // Answered by tileReady or tileMissing, once however often it is asked before the answer.
    void request(const Geo::TileId& id);
    // Forgets what was asked and not yet answered: no signal comes for it, and the server's
    // requests under way are aborted.
    void cancelPending();
    int pendingCount() const { return int(pending_.size()); }

    // The texts to show on the map for the file's data and the server's, joined.
    QString attribution() const;
    // The last fault of the file, the cache or the server; empty when none since they were set.
    QString error() const { return error_; }

signals:
    void tileReady(Geo::TileId id, QByteArray data);
    void tileMissing(Geo::TileId id);
    void sourceError(QString message);
    void attributionChanged(QString attribution);

private:
    void onProblem(const QString& message);
    void setAttributions(const QString& file, const QString& server);

    QThread thread_;
    TileWorker* worker_;
    QSet<Geo::TileId> pending_;
    // Answers to requests made before the last cancelPending() are dropped.
    quint64 generation_ = 0;
    QString error_;
    QString fileAttribution_;
    QString serverAttribution_;
};

} // namespace OrviaGonioManager::Store
