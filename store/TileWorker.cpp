#include "store/TileWorker.h"

#include "store/TileFetcher.h"
#include "store/TileServer.h"

#include <QDir>
#include <QStandardPaths>

namespace OrviaGonioManager::Store {

namespace {
// Often enough that little is lost if the program dies, seldom enough not to sync every tile.
constexpr int kCommitDelayMs = 1000;
} // namespace

TileWorker::TileWorker(QObject* parent)
    : QObject(parent), fetcher_(new TileFetcher(this)), commitTimer_(this) // moves with its owner
{
    commitTimer_.setSingleShot(true);
    commitTimer_.setInterval(kCommitDelayMs);
    connect(&commitTimer_, &QTimer::timeout, this, &TileWorker::commitCache);
    connect(fetcher_, &TileFetcher::fetched, this, &TileWorker::onFetched);
    connect(fetcher_, &TileFetcher::failed, this, &TileWorker::onFailed);
}

TileWorker::~TileWorker()
{
    commitCache();
}

void TileWorker::report(const QString& message)
{
    if (message == lastProblem_)
        return;
    lastProblem_ = message;
    if (!message.isEmpty())
        emit problem(message);
}

void TileWorker::setMbTiles(const QString& path)
{
    file_.reset();
    lastProblem_.clear();
    QString attribution;
    if (!path.isEmpty()) {
        QString error;
        file_ = MbTiles::open(path, &error);
        if (file_)
            attribution = file_->metadata().value(QStringLiteral("attribution"));
        else
            report(QStringLiteral("Map tiles: %1").arg(error));
    }
    emit fileAttribution(attribution);
}

void TileWorker::setServer(const QString& urlTemplate, const QString& attribution,
                           const QString& cacheDirectory)
{
    commitCache();
    cache_.reset();
    fetching_.clear();
    fetcher_->setServer(std::nullopt);
    lastProblem_.clear();
    if (urlTemplate.isEmpty())
        return;
    QString error;
    const std::optional<TileServer> server = TileServer::fromTemplate(urlTemplate, &error);
    if (!server) {
        report(error);
        return;
    }
    fetcher_->setServer(server);

    QString folder = cacheDirectory;
    if (folder.isEmpty())
        folder = QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + QStringLiteral("/tiles");
    if (!QDir().mkpath(folder)) {
        report(QStringLiteral("Tile cache %1: cannot create the folder; tiles are fetched again each time")
                   .arg(QDir::toNativeSeparators(folder)));
        return;
    }
    const QMap<QString, QString> metadata{
        {QStringLiteral("name"), QStringLiteral("Tile cache of %1").arg(server->host())},
        {QStringLiteral("description"), server->urlTemplate()},
        {QStringLiteral("attribution"), attribution},
        {QStringLiteral("type"), QStringLiteral("baselayer")},
        {QStringLiteral("version"), QStringLiteral("1")},
        {QStringLiteral("format"), server->formatGuess()},
    };
    cache_ = MbTiles::create(QDir(folder).filePath(server->cacheFileName()), metadata, &error);
    if (!cache_)
        report(QStringLiteral("Tile cache: %1; tiles are fetched again each time").arg(error));
}

void TileWorker::request(const Geo::TileId& id, quint64 generation)
{
    for (MbTiles* store : {file_.get(), cache_.get()}) {
        if (!store)
            continue;
        if (const std::optional<QByteArray> data = store->tile(id)) {
            emit ready(id, *data, generation);
            return;
        }
        if (!store->errorString().isEmpty())
            report(QStringLiteral("Map tiles: %1").arg(store->errorString()));
    }
    if (!fetcher_->server() || !Geo::TileMath::isValid(id)) {
        emit missing(id, generation);
        return;
    }
    fetching_.insert(id, generation);
    fetcher_->fetch(id);
}

void TileWorker::cancel()
{
    fetcher_->abortAll();
    fetching_.clear();
}

void TileWorker::onFetched(const Geo::TileId& id, const QByteArray& data)
{
    if (cache_) {
        if (cache_->put(id, data))
            commitTimer_.start();
        else
            report(QStringLiteral("Tile cache: %1").arg(cache_->errorString()));
    }
    lastProblem_.clear();
    emit ready(id, data, fetching_.take(id));
}

void TileWorker::onFailed(const Geo::TileId& id, int httpStatus, const QString& reason)
{
    // A tile the server does not have is no fault: the map shows none there.
    if (httpStatus != 404)
        report(QStringLiteral("Tile server %1: %2").arg(fetcher_->server()->host(), reason));
    emit missing(id, fetching_.take(id));
}

void TileWorker::commitCache()
{
    commitTimer_.stop();
    if (cache_ && !cache_->commit())
        report(QStringLiteral("Tile cache: %1").arg(cache_->errorString()));
}

} // namespace OrviaGonioManager::Store
