// gnxctl: monitor --mqtt, a station that streams one receiver to a broker and keeps running
// through unplugs and broker restarts.
#include "cli/Gnxctl.h"

#include "cli/MqttStation.h"
#include "cli/ServiceNotifier.h"
#include "cli/StopSignal.h"
#include "stream/MqttUrl.h"
#include "utils/RxJson.h"

#include <CLI/CLI.hpp>

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QSysInfo>
#include <QTimer>

#include <optional>

namespace OrviaGonioManager::Cli {

using Com::GnxLink;

namespace {

constexpr int kReceiverRetryMs = 2000;

void readCredentials(const CliArgs& p, Stream::MqttClient::Options& o)
{
    Gnxctl::mqttCredentials(p, &o.user, &o.password);
}

MqttStation::Options stationOptions(const CliArgs& p)
{
    MqttStation::Options o;
    try {
        o.client.url = Stream::MqttUrl::parse(p.value(QStringLiteral("mqtt")));
    } catch (const MRL::Utils::Exception& e) {
        throw CliError{EXIT_USAGE, e.message()};
    }
    readCredentials(p, o.client);
    o.client.caFile = p.value(QStringLiteral("mqtt-ca"));
    if (!o.client.caFile.isEmpty() && !QFile::exists(o.client.caFile))
        throw CliError{EXIT_USAGE, QStringLiteral("no CA file %1").arg(o.client.caFile)};
    o.client.insecure = p.isSet(QStringLiteral("mqtt-insecure"));
    if (!o.client.url.tls && (!o.client.caFile.isEmpty() || o.client.insecure))
        throw CliError{EXIT_USAGE, QStringLiteral("%1 is for TLS: the broker's URL must then be mqtts://")
                                       .arg(o.client.insecure ? QStringLiteral("--mqtt-insecure")
                                                              : QStringLiteral("--mqtt-ca"))};
    o.client.maxRefusals = p.isSet(QStringLiteral("retry-forever")) ? 0 : 3;
    if (const QString wrong = Stream::MqttClient::checkOptions(o.client); !wrong.isEmpty())
        throw CliError{EXIT_USAGE, wrong};
    o.station = p.isSet(QStringLiteral("station")) ? p.value(QStringLiteral("station"))
                                                   : qEnvironmentVariable("GNXCTL_STATION");
    if (o.station.isEmpty())
        o.station = QSysInfo::machineHostName();
    o.spoolDir =
        p.isSet(QStringLiteral("spool")) ? p.value(QStringLiteral("spool")) : Gnxctl::stateDirectory();
    bool ok = true;
    const double mb =
        p.isSet(QStringLiteral("spool-max")) ? p.value(QStringLiteral("spool-max")).toDouble(&ok) : 512;
    if (!ok || mb <= 0)
        throw CliError{EXIT_USAGE, QStringLiteral("--spool-max takes a positive number of megabytes")};
    o.spoolMaxBytes = qint64(mb * 1024 * 1024);
    return o;
}

} // namespace

QString Gnxctl::stateDirectory()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (state.isEmpty())
        state = QDir::homePath() + QStringLiteral("/.local/state");
    return state + QStringLiteral("/gnxctl");
}

// From --mqtt-auth (the user, then the password, one a line) or the environment; never from the
// command line, where every user of the machine could read them.
void Gnxctl::mqttCredentials(const CliArgs& p, QString* user, QString* password)
{
    const QString path = p.value(QStringLiteral("mqtt-auth"));
    if (path.isEmpty()) {
        *user = qEnvironmentVariable("GNXCTL_MQTT_USER");
        *password = qEnvironmentVariable("GNXCTL_MQTT_PASSWORD");
        return;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        throw CliError{EXIT_USAGE, QStringLiteral("cannot read the credentials file %1").arg(path)};
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    *user = lines.value(0).trimmed();
    *password = lines.value(1);
    if (user->isEmpty())
        throw CliError{EXIT_USAGE, QStringLiteral("%1, line 1: no user name").arg(path)};
}

void Gnxctl::addStationOptions(CLI::App& c)
{
    c.add_option("--mqtt", "Publish to the broker at URL: mqtt://host[:port]/prefix, or mqtts:// for TLS.")
        ->type_name("URL");
    c.add_option("--mqtt-auth", "The broker's user name and password, one a line (else GNXCTL_MQTT_USER and "
                                "GNXCTL_MQTT_PASSWORD).")
        ->type_name("FILE");
    c.add_option("--mqtt-ca", "CA certificates for mqtts:// (the system's without it).")->type_name("FILE");
    c.add_flag("--mqtt-insecure", "Do not check the broker's TLS certificate.");
    c.add_option("--station", "The station's name in each message (else GNXCTL_STATION, else the host name).")
        ->type_name("NAME");
    c.add_option("--spool", "Where messages wait for the broker (default $XDG_STATE_HOME/gnxctl).")
        ->type_name("DIR");
    c.add_option("--spool-max", "The spool's bound in MB (default 512).")->type_name("MB");
    c.add_option("--serial", "The receiver with this serial number, as info shows it.")->type_name("SERIAL");
    c.add_flag("--retry-forever",
               "Keep trying a broker that refuses the station for good (not authorised, a "
               "certificate that does not verify); without it the station ends with 4 after "
               "three such refusals.");
    c.add_flag("--once", "With no receiver at the start, end with 3 instead of waiting for one.");
}

void Gnxctl::monitorMqtt(const CliArgs& a)
{
    const MqttStation::Options options = stationOptions(a);
    bool ok = true;
    const qint64 count =
        a.isSet(QStringLiteral("count")) ? a.value(QStringLiteral("count")).toLongLong(&ok) : -1;
    if (!ok || count == 0)
        throw CliError{EXIT_USAGE, QStringLiteral("--count takes a positive number")};
    const double duration =
        a.isSet(QStringLiteral("duration")) ? a.value(QStringLiteral("duration")).toDouble(&ok) : -1;
    if (!ok || duration == 0)
        throw CliError{EXIT_USAGE, QStringLiteral("--duration takes a positive number of seconds")};
    const QString boot =
        QString::number(QRandomGenerator::system()->generate64(), 16).rightJustified(16, QLatin1Char('0'));
    ServiceNotifier service;

    // The receiver; without one, unless --once, the station waits for it as after an unplug.
    QString serial = a.value(QStringLiteral("serial"));
    bool present = true;
    try {
        connectReceiver(a);
        serial = serialOf(device_);
    } catch (const CliError& e) {
        if (a.isSet(QStringLiteral("once")) || e.code != EXIT_PORT)
            throw;
        present = false;
        link_.reset();
        MqttStation::say(QStringLiteral("%1; waiting for %2")
                             .arg(e.message, serial.isEmpty() ? QStringLiteral("a receiver")
                                                              : QStringLiteral("receiver %1").arg(serial)));
    }

    QEventLoop loop;
    std::optional<CliError> failure;
    qint64 published = 0;
    const auto stop = [&] { loop.quit(); };
    const auto fail = [&](const CliError& e) {
        if (!failure)
            failure = e;
        stop();
    };
    QTimer retry;
    retry.setInterval(kReceiverRetryMs);
    std::unique_ptr<MqttStation> station;
    const auto tell = [&] {
        service.status(station ? station->summary() : QStringLiteral("waiting for a receiver"));
    };
    // The station's spool and topics are the receiver's: it starts once the serial number is known.
    const auto open = [&] {
        station = std::make_unique<MqttStation>(options, serial, boot);
        QObject::connect(station.get(), &MqttStation::sigFailed, &loop, [&](const QString& reason) {
            fail({EXIT_STREAM, reason});
        });
        QObject::connect(station.get(), &MqttStation::sigChanged, &loop, tell);
        station->start();
    };

    std::function<void()> attach = [&] {
        loadFavourites();
        QObject::connect(link_.get(), &GnxLink::sigOrviaMessageReceived, &loop,
                         [&](const Com::OrviaRxMessage_t& m, GnxLink::RxOrigin_t origin) {
                             station->publish(Utils::rxJson(
                                 rows_.rowFor(m, origin, link_->version(), link_->maxPlatformsNumber())));
                             if (++published == count)
                                 stop();
                         });
        QObject::connect(link_.get(), &GnxLink::sigLinkCompromised, &loop, [&] {
            if (retry.isActive())
                return;
            station->receiverLost();
            retry.start();
            QTimer::singleShot(0, &loop, [&] { link_.reset(); }); // not from inside its own signal
        });
        link_->setLiveRxEnabled(true);
        station->receiverOnline(identification(device_));
    };
    QObject::connect(&retry, &QTimer::timeout, &loop, [&] {
        const QString port = a.value(QStringLiteral("port"));
        if (!findReceiver(port.isEmpty() ? foundPorts() : QStringList{port}, serial))
            return;
        retry.stop();
        try {
            if (!station) {
                serial = serialOf(device_);
                open();
            }
            attach();
        } catch (const CliError& e) {
            fail(e);
        } catch (const MRL::Utils::Exception&) {
            link_.reset(); // gone again at once: keep waiting
            retry.start();
        }
    });
    StopSignal signal;
    QObject::connect(&signal, &StopSignal::sigStop, &loop, stop);
    if (duration > 0)
        QTimer::singleShot(qint64(duration * 1000), &loop, stop);

    if (!serial.isEmpty())
        open();
    if (present) {
        attach();
    } else {
        if (station)
            station->receiverLost();
        retry.start();
    }
    tell();
    service.ready();
    loop.exec();
    if (link_)
        QObject::disconnect(link_.get(), nullptr, &loop, nullptr); // nothing more comes in while draining
    if (station)
        station->stop(failure ? failure->message : QString());
    if (failure)
        throw *failure;
}

} // namespace OrviaGonioManager::Cli
