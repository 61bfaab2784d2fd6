// gnxctl archive: what the stations publish, kept in a message store, each message once.
#include "cli/Gnxctl.h"

#include "cli/MqttStation.h"
#include "cli/ServiceNotifier.h"
#include "cli/StopSignal.h"
#include "stream/MqttArchiver.h"
#include "stream/MqttUrl.h"

#include <CLI/CLI.hpp>

#include <QEventLoop>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSysInfo>
#include <QUrl>

#include <optional>

namespace OrviaGonioManager::Cli {

namespace {

qint64 positive(const CliArgs& a, const char* name, qint64 otherwise)
{
    if (!a.isSet(QLatin1String(name)))
        return otherwise;
    bool ok = false;
    const qint64 n = a.value(QLatin1String(name)).toLongLong(&ok);
    if (!ok || n <= 0)
        throw CliError{EXIT_USAGE, QStringLiteral("--%1 takes a positive number").arg(QLatin1String(name))};
    return n;
}

Stream::MqttArchiver::Options archiverOptions(const CliArgs& a)
{
    Stream::MqttArchiver::Options o;
    try {
        o.mqtt.url = Stream::MqttUrl::parse(a.value(QStringLiteral("mqtt")));
    } catch (const MRL::Utils::Exception& e) {
        throw CliError{EXIT_USAGE, e.message()};
    }
    Gnxctl::mqttCredentials(a, &o.mqtt.user, &o.mqtt.password);
    o.mqtt.caFile = a.value(QStringLiteral("mqtt-ca"));
    o.mqtt.insecure = a.isSet(QStringLiteral("mqtt-insecure"));
    if (!o.mqtt.url.tls && (!o.mqtt.caFile.isEmpty() || o.mqtt.insecure))
        throw CliError{EXIT_USAGE, QStringLiteral("%1 is for TLS: the broker's URL must then be mqtts://")
                                       .arg(o.mqtt.insecure ? QStringLiteral("--mqtt-insecure")
                                                            : QStringLiteral("--mqtt-ca"))};
    if (!o.mqtt.caFile.isEmpty() && !QFileInfo(o.mqtt.caFile).isReadable())
        throw CliError{EXIT_USAGE, QStringLiteral("cannot read the CA file %1").arg(o.mqtt.caFile)};
    if (o.mqtt.user.isEmpty() && !o.mqtt.password.isEmpty())
        throw CliError{EXIT_USAGE, QStringLiteral("a password without a user name")};
    o.mqtt.maxRefusals = a.isSet(QStringLiteral("retry-forever")) ? 0 : 3;
    // The broker keeps the session under this name: the same one at each start.
    o.mqtt.clientId = a.isSet(QStringLiteral("client-id"))
                          ? a.value(QStringLiteral("client-id"))
                          : QStringLiteral("gnxctl-archive-") + QSysInfo::machineHostName();
    if (o.mqtt.clientId.isEmpty() || o.mqtt.clientId.contains(QRegularExpression(QStringLiteral("[/+#\\s]"))))
        throw CliError{EXIT_USAGE,
                       QStringLiteral("bad client id \"%1\": it names a topic level, so it must be one word "
                                      "without \"/\", \"+\" or \"#\"")
                           .arg(o.mqtt.clientId)};
    o.storeUrl = a.value(QStringLiteral("db"));
    const QString scheme = QUrl(o.storeUrl).scheme();
    if (scheme.size() > 1 && scheme != QLatin1String("postgresql") && scheme != QLatin1String("postgres") &&
        scheme != QLatin1String("sqlite"))
        throw CliError{EXIT_USAGE, QStringLiteral("bad store URL \"%1\": a path, sqlite:PATH or "
                                                  "postgresql://user@host:port/database")
                                       .arg(QUrl(o.storeUrl).toDisplayString(QUrl::RemoveUserInfo))};
    o.count = positive(a, "count", 0);
    o.maxBatch = int(std::min<qint64>(positive(a, "batch", 500), 100000));
    return o;
}

} // namespace

void Gnxctl::addArchiveCommand()
{
    CLI::App& c =
        command(QStringLiteral("archive"),
                QStringLiteral(
                    "Keeps every message the stations publish to the broker in a message store, each once: "
                    "a message is acknowledged to the broker only when it is committed. Needs no receiver; "
                    "runs until Ctrl-C or SIGTERM."),
                [this](const CliArgs& a) { archive(a); });
    c.add_option("--mqtt", "The stations' broker: mqtt://host[:port]/prefix, or mqtts:// for TLS.")
        ->type_name("URL")
        ->required();
    c.add_option("--db", "The store: a path, sqlite:PATH or postgresql://user@host:port/database.")
        ->type_name("URL")
        ->required();
    c.add_option("--mqtt-auth", "The broker's user name and password, one a line (else GNXCTL_MQTT_USER and "
                                "GNXCTL_MQTT_PASSWORD).")
        ->type_name("FILE");
    c.add_option("--mqtt-ca", "CA certificates for mqtts:// (the system's without it).")->type_name("FILE");
    c.add_flag("--mqtt-insecure", "Do not check the broker's TLS certificate.");
    c.add_option("--client-id", "The broker's name for the archiver's session (default gnxctl-archive-HOST); "
                                "keep it the same across restarts.")
        ->type_name("ID");
    c.add_flag("--retry-forever", "Keep trying a broker that refuses the archiver for good; without it the "
                                  "archiver ends with 4 after three such refusals.");
    c.add_option("--count", "End after N messages: kept, already kept or rejected.")->type_name("N");
    c.add_option("--batch", "Messages a commit at most (default 500).")->type_name("N");
}

void Gnxctl::archive(const CliArgs& a)
{
    const Stream::MqttArchiver::Options options = archiverOptions(a);
    ServiceNotifier service;
    Stream::MqttArchiver archiver(options);
    QEventLoop loop;
    std::optional<CliError> failure;
    const auto fail = [&](const CliError& e) {
        if (!failure)
            failure = e;
        loop.quit();
    };
    QObject::connect(&archiver, &Stream::MqttArchiver::sigSay, &loop, [this](const QString& text) {
        if (!quiet_)
            MqttStation::say(text);
    });
    QObject::connect(&archiver, &Stream::MqttArchiver::sigStoreFailed, &loop, [&](const QString& reason) {
        fail({EXIT_STORE, QStringLiteral("%1; the messages wait in the broker").arg(reason)});
    });
    QObject::connect(&archiver, &Stream::MqttArchiver::sigRefused, &loop, [&](const QString& reason) {
        fail({EXIT_STREAM, reason});
    });
    QObject::connect(&archiver, &Stream::MqttArchiver::sigChanged, &loop,
                     [&] { service.status(archiver.summary()); });
    QObject::connect(&archiver, &Stream::MqttArchiver::sigDone, &loop, &QEventLoop::quit);
    StopSignal signal;
    QObject::connect(&signal, &StopSignal::sigStop, &loop, &QEventLoop::quit);

    QString error;
    if (!archiver.start(&error))
        throw CliError{EXIT_STORE, error};
    service.status(archiver.summary());
    service.ready();
    loop.exec();
    archiver.stop(failure ? failure->message : QString());
    if (failure)
        throw *failure;
    const Stream::MqttArchiver::Counts& n = archiver.counts();
    if (!quiet_)
        MqttStation::say(QStringLiteral("stopped; %1 messages stored, %2 already kept, %3 rejected")
                             .arg(n.stored)
                             .arg(n.duplicates)
                             .arg(n.rejected));
}

} // namespace OrviaGonioManager::Cli
