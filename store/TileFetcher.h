#pragma once

#include "geo/TileMath.h"
#include "store/TileServer.h"

#include <QHash>
#include <QObject>
#include <QSet>

#include <deque>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;

namespace OrviaGonioManager::Store {

// Tiles from a server, one request a tile, never more than TileServer::kMaxConnections at once:
// the rest wait in order. Lives in one thread, whose event loop runs the requests.
class TileFetcher : public QObject
{
    Q_OBJECT

public:
    explicit TileFetcher(QObject* parent = nullptr);

    // Drops what was waiting or under way.
    void setServer(const std::optional<TileServer>& server);
    const std::optional<TileServer>& server() const { return server_; }

    // A tile already waiting or under way is asked for once.
    void fetch(const Geo::TileId& id);
    // Drops what waits and aborts what is under way, without a signal for either.
    void abortAll();
    // Drops what waits; what is under way ends as it will, with its signal.
    void dropQueued();
    int pending() const { return int(queue_.size()) + int(inFlight_.size()); }
    // The most requests that were ever under way at once.
    int peakInFlight() const { return peak_; }

signals:
    void fetched(Geo::TileId id, QByteArray data);
    // httpStatus is 0 when no HTTP answer came (no server, a timeout); reason says what happened.
    void failed(Geo::TileId id, int httpStatus, QString reason);
    // Nothing waits and nothing is under way any more.
    void idle();

private:
    void pump();
    void onFinished(QNetworkReply* reply);

    QNetworkAccessManager* network_;
    std::optional<TileServer> server_;
    std::deque<Geo::TileId> queue_;
    QSet<Geo::TileId> waiting_;
    QHash<QNetworkReply*, Geo::TileId> inFlight_;
    int peak_ = 0;
};

} // namespace OrviaGonioManager::Store
