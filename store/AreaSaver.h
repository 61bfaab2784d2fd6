#pragma once

#include <QObject>
#include <QString>
#include <QThread>

namespace OrviaGonioManager::Store {

class AreaJob;

// "Save this area for offline use": the tile server's tiles of a box over a range of zooms, into
// an MBTiles file that the map then reads without a network. The download runs in a thread of its
// own, two requests at a time with our User-Agent, and commits every few tiles, so that a job
// cancelled or cut short leaves a whole, smaller file; saving again fetches only what is missing.
class AreaSaver : public QObject
{
    Q_OBJECT

public:
    struct Area
    {
        // Degrees; west > east is a box across the antimeridian.
        double south = 0.0, west = 0.0, north = 0.0, east = 0.0;
        int minZoom = 0, maxZoom = 0;
    };

    // Public tile servers forbid bulk downloads in their usage policies; this keeps a save to what
    // a field trip needs.
    static constexpr qint64 kMaxTiles = 10000;
    // A street map tile at town zooms is 15 to 25 KB as PNG; the estimate takes 20 KB.
    static constexpr qint64 kEstimatedTileBytes = 20 * 1024;
    // Tiles committed together.
    static constexpr int kBatch = 25;

    static qint64 estimateTiles(const Area& area);
    static qint64 estimateBytes(const Area& area);
    // Why the area cannot be saved (a bad box or zoom range, or more than kMaxTiles tiles), in
    // words for the user; empty when it can.
    static QString refusal(const Area& area);

    explicit AreaSaver(QObject* parent = nullptr);
    // Cancels a save under way and waits for its last commit.
    ~AreaSaver() override;

    // False, with the reason in error(), when the area is refused, the template is not a tile
    // server's URL, no output was named or a save is under way; else the save ends with finished().
    bool start(const Area& area, const QString& urlTemplate, const QString& attribution,
               const QString& output);
    // Stops after the tiles received so far are committed; finished(false, ...) follows.
    void cancel();
    bool isRunning() const { return job_ != nullptr; }
    QString error() const { return error_; }

signals:
    // done counts the tiles saved, those already in the file and those the server does not have.
    void progress(qint64 done, qint64 total);
    void finished(bool ok, const QString& message);

private:
    QThread thread_;
    // Made for each save and moved to thread_; deleted once its finished() has come here.
    AreaJob* job_ = nullptr;
    QString error_;
};

} // namespace OrviaGonioManager::Store
