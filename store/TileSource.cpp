#include "store/TileSource.h"

#include "store/TileServer.h"
#include "store/TileWorker.h"

namespace OrviaGonioManager::Store {

TileSource::TileSource(QObject* parent) : QObject(parent), worker_(new TileWorker)
{
    qRegisterMetaType<Geo::TileId>();
    thread_.setObjectName(QStringLiteral("ogm-tiles"));
    worker_->moveToThread(&thread_);
    // Deleted in its own thread, where its files and sockets live.
    connect(&thread_, &QThread::finished, worker_, &QObject::deleteLater);
    connect(worker_, &TileWorker::ready, this,
            [this](const Geo::TileId& id, const QByteArray& data, quint64 gen) {
                if (gen == generation_ && pending_.remove(id))
                    emit tileReady(id, data);
            });
    connect(worker_, &TileWorker::missing, this, [this](const Geo::TileId& id, quint64 gen) {
        if (gen == generation_ && pending_.remove(id))
            emit tileMissing(id);
    });
    connect(worker_, &TileWorker::problem, this, &TileSource::onProblem);
    connect(worker_, &TileWorker::fileAttribution, this,
            [this](const QString& text) { setAttributions(text, serverAttribution_); });
    thread_.start();
}

TileSource::~TileSource()
{
    thread_.quit();
    thread_.wait();
}

void TileSource::setMbTiles(const QString& path)
{
    cancelPending();
    error_.clear();
    QMetaObject::invokeMethod(
        worker_, [w = worker_, path] { w->setMbTiles(path); }, Qt::QueuedConnection);
}

void TileSource::setServer(const QString& urlTemplate, const QString& attribution,
                           const QString& cacheDirectory)
{
    cancelPending();
    error_.clear();
    QString error;
    const bool valid = urlTemplate.isEmpty() || TileServer::fromTemplate(urlTemplate, &error);
    const QString url = valid ? urlTemplate : QString();
    QMetaObject::invokeMethod(
        worker_,
        [w = worker_, url, attribution, cacheDirectory] { w->setServer(url, attribution, cacheDirectory); },
        Qt::QueuedConnection);
    setAttributions(fileAttribution_, url.isEmpty() ? QString() : attribution);
    if (!valid)
        onProblem(error);
}

void TileSource::request(const Geo::TileId& id)
{
    if (pending_.contains(id))
        return;
    pending_.insert(id);
    QMetaObject::invokeMethod(
        worker_, [w = worker_, id, gen = generation_] { w->request(id, gen); }, Qt::QueuedConnection);
}

void TileSource::cancelPending()
{
    pending_.clear();
    ++generation_;
    QMetaObject::invokeMethod(
        worker_, [w = worker_] { w->cancel(); }, Qt::QueuedConnection);
}

QString TileSource::attribution() const
{
    QStringList parts;
    for (const QString& part : {fileAttribution_, serverAttribution_})
        if (!part.isEmpty() && !parts.contains(part))
            parts << part;
    return parts.join(QStringLiteral(" | "));
}

void TileSource::onProblem(const QString& message)
{
    error_ = message;
    emit sourceError(message);
}

void TileSource::setAttributions(const QString& file, const QString& server)
{
    const QString before = attribution();
    fileAttribution_ = file;
    serverAttribution_ = server;
    if (attribution() != before)
        emit attributionChanged(attribution());
}

} // namespace OrviaGonioManager::Store
