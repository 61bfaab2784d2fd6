#include "store/TileFetcher.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>

namespace OrviaGonioManager::Store {

TileFetcher::TileFetcher(QObject* parent) : QObject(parent), network_(new QNetworkAccessManager(this))
{
    connect(network_, &QNetworkAccessManager::finished, this, &TileFetcher::onFinished);
}

void TileFetcher::setServer(const std::optional<TileServer>& server)
{
    abortAll();
    server_ = server;
}

void TileFetcher::fetch(const Geo::TileId& id)
{
    if (!server_ || !Geo::TileMath::isValid(id) || waiting_.contains(id))
        return;
    for (const Geo::TileId& busy : std::as_const(inFlight_))
        if (busy == id)
            return;
    queue_.push_back(id);
    waiting_.insert(id);
    pump();
}

void TileFetcher::dropQueued()
{
    queue_.clear();
    waiting_.clear();
}

void TileFetcher::abortAll()
{
    dropQueued();
    // Forgotten first, so that the finished() each abort sends is not taken for an answer.
    const QList<QNetworkReply*> replies = inFlight_.keys();
    inFlight_.clear();
    for (QNetworkReply* reply : replies) {
        if (!reply->isFinished())
            reply->abort();
        reply->deleteLater();
    }
}

void TileFetcher::pump()
{
    while (server_ && !queue_.empty() && inFlight_.size() < TileServer::kMaxConnections) {
        const Geo::TileId id = queue_.front();
        queue_.pop_front();
        waiting_.remove(id);
        inFlight_.insert(network_->get(server_->request(id)), id);
        peak_ = std::max(peak_, int(inFlight_.size()));
    }
}

void TileFetcher::onFinished(QNetworkReply* reply)
{
    const auto it = inFlight_.find(reply);
    if (it == inFlight_.end())
        return; // aborted
    const Geo::TileId id = it.value();
    inFlight_.erase(it);
    reply->deleteLater();

    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray body = reply->error() == QNetworkReply::NoError ? reply->readAll() : QByteArray();
    // Told before the next request goes, so that a receiver that stops on a failure stops it.
    if (reply->error() == QNetworkReply::NoError && status == 200 && !body.isEmpty()) {
        emit fetched(id, body);
    } else if (status != 0) {
        const QString phrase = reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        emit failed(id, status,
                    status == 200 ? QStringLiteral("an empty tile")
                                  : QStringLiteral("HTTP %1 %2").arg(status).arg(phrase).trimmed());
    } else {
        emit failed(id, 0, reply->errorString());
    }
    pump();
    if (pending() == 0)
        emit idle();
}

} // namespace OrviaGonioManager::Store
