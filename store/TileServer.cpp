#include "store/TileServer.h"

#include "BuildInfo.h"

#include <QCryptographicHash>
#include <QRegularExpression>

namespace OrviaGonioManager::Store {

namespace {

QString expand(QString text, const Geo::TileId& id)
{
    return text.replace(QLatin1String("{z}"), QString::number(id.z))
        .replace(QLatin1String("{x}"), QString::number(id.x))
        .replace(QLatin1String("{y}"), QString::number(id.y));
}

} // namespace

std::optional<TileServer> TileServer::fromTemplate(const QString& urlTemplate, QString* error)
{
    const QString text = urlTemplate.trimmed();
    QStringList lacking;
    for (const char* key : {"{z}", "{x}", "{y}"})
        if (!text.contains(QLatin1String(key)))
            lacking << QLatin1String(key);
    if (text.isEmpty()) {
        *error = QStringLiteral("Tile server: no URL given");
        return std::nullopt;
    }
    if (!lacking.isEmpty()) {
        *error = QStringLiteral("Tile server \"%1\": the URL lacks %2")
                     .arg(text, lacking.join(QStringLiteral(", ")));
        return std::nullopt;
    }
    const QUrl sample(expand(text, {}), QUrl::StrictMode);
    const QString scheme = sample.scheme().toLower();
    if (!sample.isValid() || (scheme != QLatin1String("http") && scheme != QLatin1String("https")) ||
        sample.host().isEmpty()) {
        *error = QStringLiteral("Tile server \"%1\": not an http or https URL with a host").arg(text);
        return std::nullopt;
    }
    return TileServer(text);
}

QString TileServer::host() const
{
    return url({}).host();
}

QUrl TileServer::url(const Geo::TileId& id) const
{
    return QUrl(expand(template_, id));
}

QNetworkRequest TileServer::request(const Geo::TileId& id) const
{
    QNetworkRequest request(url(id));
    request.setHeader(QNetworkRequest::UserAgentHeader, userAgent());
    request.setTransferTimeout(kTimeoutMs);
    // The redirect policy stays Qt's default: never from https to http.
    return request;
}

QString TileServer::cacheFileName() const
{
    static const QRegularExpression unsafe(QStringLiteral("[^A-Za-z0-9.-]"));
    const QString readable = host().replace(unsafe, QStringLiteral("_"));
    const QByteArray hash = QCryptographicHash::hash(template_.toUtf8(), QCryptographicHash::Sha256).toHex();
    return QStringLiteral("tiles-%1-%2.mbtiles").arg(readable, QString::fromLatin1(hash.left(12)));
}

QString TileServer::formatGuess() const
{
    const QString path = url({}).path().toLower();
    if (path.endsWith(QLatin1String(".jpg")) || path.endsWith(QLatin1String(".jpeg")))
        return QStringLiteral("jpg");
    if (path.endsWith(QLatin1String(".webp")))
        return QStringLiteral("webp");
    return QStringLiteral("png");
}

QByteArray TileServer::userAgent()
{
    return QByteArrayLiteral(OGM_APP_NAME "/" OGM_VERSION_NUMBER " (+" OGM_HOMEPAGE ")");
}

} // namespace OrviaGonioManager::Store
