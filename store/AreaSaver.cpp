#include "store/AreaSaver.h"

#include "geo/TileMath.h"
#include "store/AreaJob.h"
#include "store/TileServer.h"

#include <QLocale>

#include <cmath>

namespace OrviaGonioManager::Store {

namespace {

QString number(qint64 n)
{
    return QLocale(QLocale::English).toString(n);
}

bool inRange(double v, double limit)
{
    return std::isfinite(v) && std::abs(v) <= limit;
}

} // namespace

qint64 AreaSaver::estimateTiles(const Area& a)
{
    return Geo::TileMath::tileCount(a.south, a.west, a.north, a.east, a.minZoom, a.maxZoom);
}

qint64 AreaSaver::estimateBytes(const Area& area)
{
    return estimateTiles(area) * kEstimatedTileBytes;
}

QString AreaSaver::refusal(const Area& a)
{
    if (!inRange(a.south, 90) || !inRange(a.north, 90) || a.south > a.north)
        return QStringLiteral("The area's latitudes must run from south to north within -90 to 90 degrees.");
    if (!inRange(a.west, 180) || !inRange(a.east, 180))
        return QStringLiteral("The area's longitudes must be within -180 to 180 degrees.");
    if (a.minZoom < 0 || a.minZoom > a.maxZoom || a.maxZoom > Geo::TileMath::kMaxZoom)
        return QStringLiteral("The zoom levels must run from the lowest to the highest within 0 to %1.")
            .arg(Geo::TileMath::kMaxZoom);
    const qint64 tiles = estimateTiles(a);
    if (tiles > kMaxTiles)
        return QStringLiteral(
                   "This area needs %1 tiles at zoom %2 to %3, about %4 MB. At most %5 tiles can be "
                   "saved at once: the usage policies of public tile servers forbid bulk downloads. "
                   "Choose a smaller area or fewer zoom levels.")
            .arg(number(tiles))
            .arg(a.minZoom)
            .arg(a.maxZoom)
            .arg(number(estimateBytes(a) / 1000000))
            .arg(number(kMaxTiles));
    return QString();
}

AreaSaver::AreaSaver(QObject* parent) : QObject(parent)
{
    thread_.setObjectName(QStringLiteral("ogm-area-saver"));
}

AreaSaver::~AreaSaver()
{
    if (job_) {
        // The job commits what it has, in its own thread, before the thread stops.
        QMetaObject::invokeMethod(
            job_,
            [job = job_] {
                job->cancel();
                delete job;
            },
            Qt::BlockingQueuedConnection);
        job_ = nullptr;
    }
    thread_.quit();
    thread_.wait();
}

bool AreaSaver::start(const Area& area, const QString& urlTemplate, const QString& attribution,
                      const QString& output)
{
    error_.clear();
    if (job_)
        error_ = QStringLiteral("A save is under way: cancel it or wait for it to end.");
    else if (output.isEmpty())
        error_ = QStringLiteral("No file was named to save the area to.");
    else
        error_ = refusal(area);
    std::optional<TileServer> server;
    if (error_.isEmpty())
        server = TileServer::fromTemplate(urlTemplate, &error_);
    if (!error_.isEmpty())
        return false;

    if (!thread_.isRunning())
        thread_.start();
    job_ = new AreaJob(area, *server, attribution, output);
    job_->moveToThread(&thread_);
    connect(job_, &AreaJob::progress, this, &AreaSaver::progress);
    connect(job_, &AreaJob::finished, this, [this](bool ok, const QString& message) {
        job_->deleteLater();
        job_ = nullptr;
        emit finished(ok, message);
    });
    QMetaObject::invokeMethod(job_, &AreaJob::run, Qt::QueuedConnection);
    return true;
}

void AreaSaver::cancel()
{
    if (job_)
        QMetaObject::invokeMethod(job_, &AreaJob::cancel, Qt::QueuedConnection);
}

} // namespace OrviaGonioManager::Store
