#include "stream/MqttUrl.h"

#include "mrl/utils/Exception.h"

#include <QRegularExpression>
#include <QUrl>

namespace OrviaGonioManager::Stream {

namespace {

// What may hold credentials: from the scheme's "://" (or the start) to the last "@". A password
// may hold "/" or "#", so the authority's end cannot be trusted; a prefix with "@" is hidden too.
QString userInfo(const QString& text)
{
    const qsizetype at = text.lastIndexOf(QLatin1Char('@'));
    if (at < 0)
        return {};
    const qsizetype scheme = text.indexOf(QStringLiteral("://"));
    const qsizetype from = scheme >= 0 && scheme < at ? scheme + 3 : 0;
    return text.mid(from, at - from);
}

// Every message shows the URL with its user information as "***", wherever it is quoted.
[[noreturn]] void bad(const QString& text, const QString& why)
{
    QString message = QStringLiteral("bad MQTT URL \"%1\": %2").arg(text, why);
    const QString secret = userInfo(text);
    if (!secret.isEmpty())
        message.replace(secret, QStringLiteral("***"));
    throw MRL::Utils::Exception(message, 2);
}

} // namespace

MqttUrl MqttUrl::parse(const QString& text)
{
    const QUrl url(text, QUrl::StrictMode);
    MqttUrl result;
    // First, so that no other complaint is about a URL with credentials; an "@" in the prefix is fine.
    const bool atInPrefix =
        url.isValid() && url.userInfo().isEmpty() && url.path().contains(QLatin1Char('@'));
    if (!userInfo(text).isEmpty() && !atInPrefix)
        bad(text, QStringLiteral("credentials go in --mqtt-auth or the environment, never in the URL"));
    // Wildcards are for subscribers; a publisher's topic must not hold them ("#" would be a fragment).
    if (text.section(QStringLiteral("://"), 1).contains(QRegularExpression(QStringLiteral("[+#]"))))
        bad(text, QStringLiteral("the prefix must not hold \"+\" or \"#\""));
    if (!url.isValid())
        bad(text, url.errorString());
    if (url.scheme() != QLatin1String("mqtt") && url.scheme() != QLatin1String("mqtts"))
        bad(text, QStringLiteral("the scheme must be mqtt:// or mqtts://"));
    if (url.host().isEmpty())
        bad(text, QStringLiteral("no host"));
    result.tls = url.scheme() == QLatin1String("mqtts");
    result.host = url.host();
    result.port = url.port(result.tls ? 8883 : 1883);
    if (result.port <= 0)
        bad(text, QStringLiteral("bad port"));
    result.prefix = url.path();
    while (result.prefix.startsWith(QLatin1Char('/')))
        result.prefix.remove(0, 1);
    while (result.prefix.endsWith(QLatin1Char('/')))
        result.prefix.chop(1);
    if (result.prefix.isEmpty())
        bad(text, QStringLiteral("no topic prefix (mqtt://host/prefix)"));
    if (url.hasQuery() || url.hasFragment())
        bad(text, QStringLiteral("no query or fragment is allowed"));
    return result;
}

} // namespace OrviaGonioManager::Stream
