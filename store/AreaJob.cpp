#include "store/AreaJob.h"

#include "store/TileFetcher.h"

#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QStringList>

#include <algorithm>

namespace OrviaGonioManager::Store {

namespace {

QString number(qint64 n)
{
    return QLocale(QLocale::English).toString(n);
}

// The MBTiles format name of a tile's bytes, from their signature; empty when unknown.
QString formatOf(const QByteArray& data)
{
    if (data.startsWith("\x89PNG\r\n\x1a\n"))
        return QStringLiteral("png");
    if (data.startsWith("\xff\xd8\xff"))
        return QStringLiteral("jpg");
    if (data.startsWith("RIFF") && data.mid(8, 4) == "WEBP")
        return QStringLiteral("webp");
    return QString();
}

struct Bounds
{
    double west, south, east, north;
};

std::optional<Bounds> parseBounds(const QString& text)
{
    const QStringList parts = text.split(QLatin1Char(','));
    if (parts.size() != 4)
        return std::nullopt;
    double v[4];
    for (int i = 0; i < 4; ++i) {
        bool ok = false;
        v[i] = parts[i].trimmed().toDouble(&ok);
        if (!ok)
            return std::nullopt;
    }
    return Bounds{v[0], v[1], v[2], v[3]};
}

QString boundsText(const Bounds& b)
{
    return QStringLiteral("%1,%2,%3,%4")
        .arg(b.west, 0, 'g', 10)
        .arg(b.south, 0, 'g', 10)
        .arg(b.east, 0, 'g', 10)
        .arg(b.north, 0, 'g', 10);
}

} // namespace

AreaJob::AreaJob(const AreaSaver::Area& area, const TileServer& server, const QString& attribution,
                 const QString& output)
    : area_(area), server_(server), attribution_(attribution), output_(output),
      fetcher_(new TileFetcher(this))
{
    fetcher_->setServer(server_);
    connect(fetcher_, &TileFetcher::fetched, this, &AreaJob::onFetched);
    connect(fetcher_, &TileFetcher::failed, this, &AreaJob::onFailed);
    connect(fetcher_, &TileFetcher::idle, this, &AreaJob::onIdle);
}

AreaJob::~AreaJob()
{
    fetcher_->abortAll();
    if (file_)
        file_->commit();
}

QMap<QString, QString> AreaJob::plannedMetadata() const
{
    const double lat = Geo::TileMath::kMaxLatitude;
    // MBTiles bounds cannot cross the antimeridian: such a box is given the world's width.
    const bool across = area_.west > area_.east;
    const Bounds bounds{across ? -180.0 : area_.west, std::max(area_.south, -lat),
                        across ? 180.0 : area_.east, std::min(area_.north, lat)};
    return {
        {QStringLiteral("name"), QFileInfo(output_).completeBaseName()},
        {QStringLiteral("description"),
         QStringLiteral("Saved for offline use from %1").arg(server_.urlTemplate())},
        {QStringLiteral("attribution"), attribution_},
        {QStringLiteral("type"), QStringLiteral("baselayer")},
        {QStringLiteral("version"), QStringLiteral("1")},
        {QStringLiteral("format"), server_.formatGuess()},
        {QStringLiteral("minzoom"), QString::number(area_.minZoom)},
        {QStringLiteral("maxzoom"), QString::number(area_.maxZoom)},
        {QStringLiteral("bounds"), boundsText(bounds)},
    };
}

bool AreaJob::openOutput(QString* error)
{
    QMap<QString, QString> planned = plannedMetadata();
    if (!QFileInfo::exists(output_)) {
        file_ = MbTiles::create(output_, planned, error);
        return bool(file_);
    }
    // A file saved before grows: its zooms and bounds take in the new area's.
    file_ = MbTiles::create(output_, {}, error);
    if (!file_)
        return false;
    const QMap<QString, QString> had = file_->metadata();
    for (const QString& key :
         {QStringLiteral("name"), QStringLiteral("description"), QStringLiteral("format")})
        if (!had.value(key).isEmpty())
            planned.insert(key, had.value(key));
    if (file_->minZoom() >= 0) {
        planned.insert(QStringLiteral("minzoom"), QString::number(std::min(file_->minZoom(), area_.minZoom)));
        planned.insert(QStringLiteral("maxzoom"), QString::number(std::max(file_->maxZoom(), area_.maxZoom)));
    }
    const auto before = parseBounds(had.value(QStringLiteral("bounds")));
    const auto now = parseBounds(planned.value(QStringLiteral("bounds")));
    if (before && now)
        planned.insert(QStringLiteral("bounds"),
                       boundsText({std::min(before->west, now->west), std::min(before->south, now->south),
                                   std::max(before->east, now->east), std::max(before->north, now->north)}));
    if (!file_->setMetadata(planned) || !file_->commit()) {
        *error = file_->errorString();
        return false;
    }
    return true;
}

void AreaJob::run()
{
    QString error;
    if (!openOutput(&error)) {
        end(false, QStringLiteral("Cannot save the area: %1").arg(error));
        return;
    }
    total_ = AreaSaver::estimateTiles(area_);
    for (int z = area_.minZoom; z <= area_.maxZoom; ++z) {
        for (const Geo::TileId& id :
             Geo::TileMath::tilesCovering(area_.south, area_.west, area_.north, area_.east, z)) {
            if (file_->contains(id))
                ++alreadyThere_;
            else if (!file_->errorString().isEmpty())
                return end(false, QStringLiteral("Cannot save the area: %1").arg(file_->errorString()));
            else // the fetcher starts the first two at once and queues the rest
                fetcher_->fetch(id);
        }
    }
    done_ = alreadyThere_;
    emit progress(done_, total_);
    if (fetcher_->pending() == 0)
        onIdle();
}

void AreaJob::cancel()
{
    end(false, QStringLiteral("Cancelled. %1").arg(savedSoFar()));
}

void AreaJob::onFetched(const Geo::TileId& id, const QByteArray& data)
{
    if (ended_)
        return;
    if (!formatChecked_) {
        formatChecked_ = true;
        const QString format = formatOf(data);
        if (!format.isEmpty() && format != file_->metadata().value(QStringLiteral("format")))
            file_->setMetadata({{QStringLiteral("format"), format}});
    }
    if (!file_->put(id, data) || (file_->uncommitted() >= AreaSaver::kBatch && !file_->commit())) {
        end(false, QStringLiteral("Stopped: %1. %2").arg(file_->errorString(), savedSoFar()));
        return;
    }
    ++saved_;
    ++done_;
    bytes_ += data.size();
    emit progress(done_, total_);
}

void AreaJob::onFailed(const Geo::TileId& id, int httpStatus, const QString& reason)
{
    if (ended_)
        return;
    if (httpStatus == 404) {
        ++notOnServer_;
        ++done_;
        emit progress(done_, total_);
        return;
    }
    // Anything else (refused, overloaded, unreachable) is not asked again and again.
    if (stopReason_.isEmpty()) {
        const QString tile = QStringLiteral("%1/%2/%3").arg(id.z).arg(id.x).arg(id.y);
        const QString what = httpStatus == 0
                                 ? QStringLiteral("no answer from the tile server %1 for tile %2 (%3)")
                                 : QStringLiteral("the tile server %1 answered %3 for tile %2");
        stopReason_ = what.arg(server_.host(), tile, reason);
    }
    fetcher_->dropQueued();
    if (fetcher_->pending() == 0)
        onIdle();
}

void AreaJob::onIdle()
{
    if (ended_)
        return;
    if (!stopReason_.isEmpty()) {
        end(false, QStringLiteral("Stopped: %1. %2").arg(stopReason_, savedSoFar()));
        return;
    }
    QStringList parts{QStringLiteral("Saved %1 tiles (%2 MB) to %3")
                          .arg(number(saved_))
                          .arg(QLocale(QLocale::English).toString(bytes_ / 1e6, 'f', 1),
                               QDir::toNativeSeparators(file_->path()))};
    if (alreadyThere_ > 0)
        parts << QStringLiteral("%1 were there already").arg(number(alreadyThere_));
    if (notOnServer_ > 0)
        parts << QStringLiteral("the server has no tile for %1 more").arg(number(notOnServer_));
    end(true, parts.join(QStringLiteral("; ")) + QLatin1Char('.'));
}

void AreaJob::end(bool ok, const QString& message)
{
    if (ended_)
        return;
    ended_ = true;
    fetcher_->abortAll();
    QString text = message;
    if (file_ && !file_->commit()) {
        ok = false;
        text += QLatin1Char(' ') + file_->errorString();
    }
    emit finished(ok, text);
}

QString AreaJob::savedSoFar() const
{
    return QStringLiteral(
               "%1 of the area's %2 tiles are in %3; saving the same area again fetches only the rest.")
        .arg(number(alreadyThere_ + saved_), number(total_), QDir::toNativeSeparators(output_));
}

} // namespace OrviaGonioManager::Store
