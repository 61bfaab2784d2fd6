#pragma once

#include "geo/TileMath.h"

#include <QByteArray>
#include <QNetworkRequest>
#include <QString>
#include <QUrl>

#include <optional>

namespace OrviaGonioManager::Store {

// A tile server as a URL template with {z}, {x} and {y}, and the way we ask it for tiles: our own
// User-Agent and never more than kMaxConnections at once, as public servers' usage policies ask.
class TileServer
{
public:
    static constexpr int kMaxConnections = 2;
    // A reply slower than this is given up, so that a server that hangs frees its connection.
    static constexpr int kTimeoutMs = 30000;

    // Null, with the reason in *error, unless the template is an http or https URL with a host and
    // all three of {z}, {x} and {y}.
    static std::optional<TileServer> fromTemplate(const QString& urlTemplate, QString* error);

    QString urlTemplate() const { return template_; }
    QString host() const;
    QUrl url(const Geo::TileId& id) const;
    QNetworkRequest request(const Geo::TileId& id) const;
    // The name of this server's disk cache in a cache folder: one file a template, so that two
    // servers' tiles never mix.
    QString cacheFileName() const;
    // The MBTiles format name ("png", "jpg", "webp") that the template's extension suggests.
    QString formatGuess() const;

    // "OrviaGonioManager/<version> (+<homepage>)".
    static QByteArray userAgent();

private:
    explicit TileServer(const QString& urlTemplate) : template_(urlTemplate) {}
    QString template_;
};

} // namespace OrviaGonioManager::Store
