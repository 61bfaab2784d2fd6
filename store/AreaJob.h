#pragma once

#include "geo/TileMath.h"
#include "store/AreaSaver.h"
#include "store/MbTiles.h"
#include "store/TileServer.h"

#include <QObject>

#include <memory>

namespace OrviaGonioManager::Store {

class TileFetcher;

// One save of AreaSaver, in its thread: the output file, the fetches and the counts.
class AreaJob : public QObject
{
    Q_OBJECT

public:
    AreaJob(const AreaSaver::Area& area, const TileServer& server, const QString& attribution,
            const QString& output);
    ~AreaJob() override;

    void run();
    void cancel();

signals:
    void progress(qint64 done, qint64 total);
    void finished(bool ok, const QString& message);

private:
    void onFetched(const Geo::TileId& id, const QByteArray& data);
    void onFailed(const Geo::TileId& id, int httpStatus, const QString& reason);
    void onIdle();
    bool openOutput(QString* error);
    QMap<QString, QString> plannedMetadata() const;
    // Commits, and ends the job with the message (once).
    void end(bool ok, const QString& message);
    QString savedSoFar() const;

    AreaSaver::Area area_;
    TileServer server_;
    QString attribution_;
    QString output_;
    std::unique_ptr<MbTiles> file_;
    TileFetcher* fetcher_;
    qint64 total_ = 0;
    qint64 done_ = 0;
    qint64 alreadyThere_ = 0;
    qint64 saved_ = 0;
    qint64 notOnServer_ = 0;
    qint64 bytes_ = 0;
    // Set when the server failed: nothing more is asked, and the job ends once the requests
    // under way have ended by themselves (aborting them then races with their own error).
    QString stopReason_;
    bool formatChecked_ = false;
    bool ended_ = false;
};

} // namespace OrviaGonioManager::Store
