// gnxctl: the commands on the receiver itself: ports, identification, clock, raw commands, mode.
#include "cli/Gnxctl.h"

#include "com/ComManager.h"
#include "com/EnumTexts.h"
#include "com/SetupJson.h"
#include "mrl/utils/DateTime.h"
#include "mrl/utils/Exception.h"

#include "app/Settings.h"
#include "cli/StopSignal.h"

#include <CLI/CLI.hpp>

#include <QDateTime>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaEnum>
#include <QTimer>

#include <unistd.h>

namespace OrviaGonioManager::Cli {

using Com::GnxLink;

namespace {

QString modelName(GnxLink::GnxVersion_t version)
{
    return version == GnxLink::GNX_V1 ? QStringLiteral("GNX134") : QStringLiteral("GNX234");
}

QString modeName(GnxLink::GnxMode_t mode)
{
    return mode == GnxLink::GNX_BL ? QStringLiteral("bl") : QStringLiteral("app");
}

} // namespace

void Gnxctl::addDeviceCommands()
{
    command(QStringLiteral("ports"),
            QStringLiteral("The receivers found: path, USB serial number, how each was found (--json: one "
                           "object)."),
            [this](const CliArgs&) { ports(); });
    command(QStringLiteral("info"),
            QStringLiteral("Identification and status of the receiver (--json: one object)."),
            [this](const CliArgs& a) {
                connectReceiver(a);
                info(json_);
            });
    command(QStringLiteral("setup get"), QStringLiteral("Both setups of the receiver (--json: one object)."),
            [this](const CliArgs& a) {
                connectReceiver(a);
                setupGet(json_);
            });
    command(QStringLiteral("setup set"),
            QStringLiteral("Writes the setup fields of the file (the layout of \"setup get --json\"), "
                           "reads them back and checks that each took."),
            [this](const CliArgs& a) {
                const QString file = a.value(QStringLiteral("file"));
                QFile f(file);
                if (!f.open(QIODevice::ReadOnly))
                    throw CliError{EXIT_USAGE, QStringLiteral("Unable to open setup file %1").arg(file)};
                QJsonParseError error;
                const QJsonDocument doc = QJsonDocument::fromJson(f.readAll(), &error);
                if (!doc.isObject())
                    throw CliError{EXIT_USAGE, QStringLiteral("%1: not a JSON object (%2 at byte %3)")
                                                   .arg(file, error.errorString())
                                                   .arg(error.offset)};
                connectReceiver(a);
                setupSet(file, doc.object());
            })
        .add_option("file", "The setups, as JSON.")
        ->required()
        ->type_name("FILE.json");
    command(QStringLiteral("time get"),
            QStringLiteral("The receiver's clock, UTC, to the minute it keeps (--json: one object)."),
            [this](const CliArgs& a) {
                connectReceiver(a);
                timeGet(json_);
            });
    command(QStringLiteral("time sync"),
            QStringLiteral("Sets the receiver's clock to the computer's UTC time. The receiver takes hours "
                           "and minutes only, so gnxctl waits for the next minute and sends it at its "
                           "first millisecond."),
            [this](const CliArgs& a) {
                connectReceiver(a);
                timeSync(a.isSet(QStringLiteral("now")));
            })
        .add_flag("--now", "Send the current minute at once; the receiver is then behind by the seconds "
                           "already past (a warning says how many).");
    command(QStringLiteral("send"),
            QStringLiteral("Sends one command, as the window's terminal does, and prints its reply. A "
                           "refusal, a wrong checksum or no answer exits with 1."),
            [this](const CliArgs& a) {
                connectReceiver(a);
                send(a.value(QStringLiteral("command")));
            })
        .add_option("command", "The command, e.g. GSN or 'SETUPSW,,,,,,,,,,,,,'.")
        ->required()
        ->type_name("'CMD,ARGS'");
    command(
        QStringLiteral("mode"), QStringLiteral("Switches the receiver to its application or its bootloader."),
        [this](const CliArgs& a) {
            const QString which = a.value(QStringLiteral("which"));
            if (which != QLatin1String("app") && which != QLatin1String("bl"))
                throw CliError{EXIT_USAGE, QStringLiteral("mode must be app or bl, not \"%1\"").arg(which)};
            connectReceiver(a);
            mode(which);
        })
        .add_option("which", "app or bl.")
        ->required()
        ->type_name("app|bl");
}

void Gnxctl::ports()
{
    QJsonArray found;
    for (const auto& p : Com::ComManager::systemPorts())
        if (p.vendorId == Com::ComManager::kGnxVendorId && p.productId == Com::ComManager::kGnxProductId)
            found.append(QJsonObject{
                {QStringLiteral("path"), p.systemLocation},
                {QStringLiteral("serialNumber"), p.serialNumber.isEmpty() ? QJsonValue() : p.serialNumber},
                {QStringLiteral("foundBy"), QStringLiteral("USB %1:%2")
                                                .arg(p.vendorId, 4, 16, QLatin1Char('0'))
                                                .arg(p.productId, 4, 16, QLatin1Char('0'))}});
    for (const QString& path : Com::ComManager::extraPortPaths())
        found.append(
            QJsonObject{{QStringLiteral("path"), path},
                        {QStringLiteral("serialNumber"), QJsonValue()},
                        {QStringLiteral("foundBy"), QLatin1String(Com::ComManager::kExtraPortsVariable)}});
    if (json_) {
        out(QString::fromUtf8(
                QJsonDocument(QJsonObject{{QStringLiteral("ports"), found}}).toJson(QJsonDocument::Compact)) +
            QLatin1Char('\n'));
        return;
    }
    QString text;
    for (const QJsonValue& v : std::as_const(found)) {
        const QJsonObject o = v.toObject();
        text += QStringLiteral("%1\t%2\t%3\n")
                    .arg(o[QStringLiteral("path")].toString(),
                         o[QStringLiteral("serialNumber")].isNull()
                             ? QStringLiteral("-")
                             : o[QStringLiteral("serialNumber")].toString(),
                         o[QStringLiteral("foundBy")].toString());
    }
    out(text);
}

QJsonObject Gnxctl::identification(const GnxLink::GnxDeviceInfo& d)
{
    return {{QStringLiteral("model"), modelName(d.version)},
            {QStringLiteral("mode"), modeName(d.mode)},
            {QStringLiteral("applicationVersion"), d.applicationVersion},
            {QStringLiteral("fpgaVersion"), d.fpgaVersion},
            {QStringLiteral("bootloaderVersion"), d.bootloaderVersion}};
}

void Gnxctl::info(bool json)
{
    const auto& d = device_;
    const QList<QPair<QString, QJsonValue>> fields{
        {QStringLiteral("model"), modelName(d.version)},
        {QStringLiteral("mode"), modeName(d.mode)},
        {QStringLiteral("serialNumber"), serialOf(d)},
        {QStringLiteral("applicationVersion"), d.applicationVersion},
        {QStringLiteral("fpgaVersion"), d.fpgaVersion},
        {QStringLiteral("bootloaderVersion"), d.bootloaderVersion},
        {QStringLiteral("latitude"), d.latitude},
        {QStringLiteral("longitude"), d.longitude},
        {QStringLiteral("direction"), qint64(d.direction)},
        {QStringLiteral("voltage"), d.voltage},
        {QStringLiteral("temperature"), qint64(d.temperature)},
        {QStringLiteral("band"), Com::EnumTexts::text(d.band)},
    };
    // The bootloader answers identification only.
    const int shown = d.mode == GnxLink::GNX_BL ? 6 : int(fields.size());
    if (json) {
        QJsonObject o;
        for (int i = 0; i < shown; ++i)
            o.insert(fields[i].first, fields[i].second);
        out(QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact)) + QLatin1Char('\n'));
        return;
    }
    QString text;
    for (int i = 0; i < shown; ++i)
        text += fields[i].first + QStringLiteral(": ") + fields[i].second.toVariant().toString() +
                QLatin1Char('\n');
    out(text);
}

void Gnxctl::setupGet(bool json)
{
    const QJsonObject setups = Com::SetupJson::toJson(link_->getSetupSoftware(), link_->getSetupHardware());
    if (json) {
        out(QString::fromUtf8(QJsonDocument(setups).toJson(QJsonDocument::Compact)) + QLatin1Char('\n'));
        return;
    }
    QString text;
    for (const QString& group : {QStringLiteral("software"), QStringLiteral("hardware")}) {
        const QJsonObject o = setups.value(group).toObject();
        for (auto it = o.begin(); it != o.end(); ++it)
            text += group + QLatin1Char('.') + it.key() + QStringLiteral(": ") +
                    it.value().toVariant().toString() + QLatin1Char('\n');
    }
    out(text);
}

void Gnxctl::setupSet(const QString& fileName, const QJsonObject& wanted)
{
    GnxLink::SetupSoftware software = link_->getSetupSoftware();
    GnxLink::SetupHardware hardware = link_->getSetupHardware();
    try {
        Com::SetupJson::apply(wanted, software, hardware);
    } catch (const MRL::Utils::Exception& e) {
        throw CliError{EXIT_USAGE, fileName + QStringLiteral(": ") + e.message()};
    }
    link_->setSetupSoftware(software);
    link_->setSetupHardware(hardware);
    const QJsonObject got = Com::SetupJson::toJson(link_->getSetupSoftware(), link_->getSetupHardware());
    const QStringList refused = Com::SetupJson::differences(Com::SetupJson::toJson(software, hardware), got);
    if (!refused.isEmpty())
        throw CliError{
            EXIT_DEVICE,
            QStringLiteral("the receiver did not take %1").arg(refused.join(QStringLiteral(", ")))};
}

void Gnxctl::timeGet(bool json)
{
    // The receiver keeps hours and minutes: no seconds are shown that it does not have.
    const GnxLink::SetupSoftware setup = link_->getSetupSoftware();
    const QDateTime clock = MRL::Utils::DateTime::fromMjd(setup.mjd, setup.secondsOfDay).toQDateTime();
    const QString text = clock.toString(QStringLiteral("yyyy-MM-ddTHH:mm")) + QLatin1Char('Z');
    if (json)
        out(QString::fromUtf8(
                QJsonDocument(QJsonObject{{QStringLiteral("utc"), text},
                                          {QStringLiteral("resolution"), QStringLiteral("minute")}})
                    .toJson(QJsonDocument::Compact)) +
            QLatin1Char('\n'));
    else
        out(text + QLatin1Char('\n'));
}

void Gnxctl::timeSync(bool now)
{
    QDateTime at = QDateTime::currentDateTimeUtc();
    if (now) {
        const int behind = at.time().second();
        if (behind > 0 && !quiet_)
            std::fprintf(stderr,
                         "gnxctl: warning: the receiver keeps hours and minutes only: its clock will be %d s "
                         "behind (without --now, gnxctl waits for the next minute)\n",
                         behind);
    } else {
        at = QDateTime(at.date(), QTime(at.time().hour(), at.time().minute()), Qt::UTC).addSecs(60);
        waitUntil(at);
    }
    const auto dt = MRL::Utils::DateTime::fromUtc(at.date().year(), at.date().month(), at.date().day(),
                                                  at.time().hour(), at.time().minute(), 0);
    link_->setTime(dt.mjd(), dt.secondsOfDay());
    timeGet(json_);
}

// Waits on the event loop, the link kept alive, counting down on a terminal; Ctrl-C gives up.
void Gnxctl::waitUntil(const QDateTime& at)
{
    QEventLoop loop;
    bool stopped = false;
    QTimer boundary;
    boundary.setTimerType(Qt::PreciseTimer);
    boundary.setSingleShot(true);
    QObject::connect(&boundary, &QTimer::timeout, &loop, &QEventLoop::quit);
    QTimer countdown;
    const bool terminal = !quiet_ && ::isatty(fileno(stderr)) != 0;
    const auto show = [&] {
        const qint64 left = (QDateTime::currentDateTimeUtc().msecsTo(at) + 999) / 1000;
        std::fprintf(stderr, "\rSetting the receiver's clock to %s UTC in %2lld s ",
                     at.toString(QStringLiteral("HH:mm")).toLatin1().constData(),
                     static_cast<long long>(left));
        std::fflush(stderr);
    };
    QObject::connect(&countdown, &QTimer::timeout, &loop, show);
    StopSignal signal;
    QObject::connect(&signal, &StopSignal::sigStop, &loop, [&] {
        stopped = true;
        loop.quit();
    });
    QObject::connect(link_.get(), &GnxLink::sigLinkCompromised, &loop, &QEventLoop::quit);
    boundary.start(int(qMax<qint64>(0, QDateTime::currentDateTimeUtc().msecsTo(at))));
    if (terminal) {
        show();
        countdown.start(1000);
    }
    loop.exec();
    if (terminal)
        std::fputc('\n', stderr);
    if (stopped)
        throw CliError{EXIT_DEVICE, QStringLiteral("interrupted: the receiver's clock was not set")};
    if (!link_->isUsable())
        throw CliError{EXIT_DEVICE,
                       lastLinkError_.isEmpty() ? QStringLiteral("the receiver went away") : lastLinkError_};
}

void Gnxctl::send(const QString& command)
{
    out(link_->exchangeManualCommand(command).join(QLatin1Char(',')) + QLatin1Char('\n'));
}

void Gnxctl::mode(const QString& which)
{
    if (modeName(device_.mode) != which)
        link_->switchMode();
}

} // namespace OrviaGonioManager::Cli
