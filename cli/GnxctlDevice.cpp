// gnxctl: the commands on the receiver itself: ports, identification, clock, raw commands, mode.
#include "cli/Gnxctl.h"

#include "com/ComManager.h"
#include "com/SetupJson.h"
#include "mrl/utils/DateTime.h"
#include "mrl/utils/Exception.h"

#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaEnum>

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

QString clockText(quint64 mjd, double secondsOfDay)
{
    return MRL::Utils::DateTime::fromMjd(mjd, secondsOfDay).toQDateTime().toString(Qt::ISODate);
}

} // namespace

void Gnxctl::addDeviceCommands()
{
    const auto none = [](QCommandLineParser&) {};
    const auto json = [](QCommandLineParser& p) {
        p.addOption({QStringLiteral("json"), QStringLiteral("One JSON object instead of text.")});
    };
    commands_ << Command{QStringLiteral("ports"), QStringLiteral("gnxctl ports"),
                         QStringLiteral("The receivers found: path, USB serial number, how each was found."),
                         none, [this](QCommandLineParser& p) {
                             positional(p, skipWords_, 0, {});
                             ports();
                         }};
    commands_ << Command{QStringLiteral("info"), QStringLiteral("gnxctl info [--json]"),
                         QStringLiteral("Identification and status of the receiver."), json,
                         [this](QCommandLineParser& p) {
                             positional(p, skipWords_, 0, {});
                             connectReceiver(p);
                             info(p.isSet(QStringLiteral("json")));
                         }};
    commands_ << Command{QStringLiteral("setup get"), QStringLiteral("gnxctl setup get [--json]"),
                         QStringLiteral("Both setups of the receiver."), json, [this](QCommandLineParser& p) {
                             positional(p, skipWords_, 0, {});
                             connectReceiver(p);
                             setupGet(p.isSet(QStringLiteral("json")));
                         }};
    commands_ << Command{
        QStringLiteral("setup set"), QStringLiteral("gnxctl setup set FILE.json"),
        QStringLiteral("Writes the setup fields of the file (the layout of \"setup get --json\"), "
                       "reads them back and checks that each took."),
        none, [this](QCommandLineParser& p) {
            const QString file = positional(p, skipWords_, 1, QStringLiteral("one file")).first();
            QFile f(file);
            if (!f.open(QIODevice::ReadOnly))
                throw CliError{EXIT_USAGE, QStringLiteral("Unable to open setup file %1").arg(file)};
            QJsonParseError error;
            const QJsonDocument doc = QJsonDocument::fromJson(f.readAll(), &error);
            if (!doc.isObject())
                throw CliError{EXIT_USAGE, QStringLiteral("%1: not a JSON object (%2 at byte %3)")
                                               .arg(file, error.errorString())
                                               .arg(error.offset)};
            connectReceiver(p);
            setupSet(file, doc.object());
        }};
    commands_ << Command{QStringLiteral("time get"), QStringLiteral("gnxctl time get"),
                         QStringLiteral("The receiver's clock, UTC."), none, [this](QCommandLineParser& p) {
                             positional(p, skipWords_, 0, {});
                             connectReceiver(p);
                             timeGet();
                         }};
    commands_ << Command{QStringLiteral("time sync"), QStringLiteral("gnxctl time sync"),
                         QStringLiteral("Sets the receiver's clock to the computer's UTC time."), none,
                         [this](QCommandLineParser& p) {
                             positional(p, skipWords_, 0, {});
                             connectReceiver(p);
                             timeSync();
                         }};
    commands_ << Command{
        QStringLiteral("send"), QStringLiteral("gnxctl send 'CMD,ARGS'"),
        QStringLiteral("Sends one raw command and prints its reply."), none, [this](QCommandLineParser& p) {
            const QString command = positional(p, skipWords_, 1, QStringLiteral("one command")).first();
            connectReceiver(p);
            send(command);
        }};
    commands_ << Command{
        QStringLiteral("mode"), QStringLiteral("gnxctl mode app|bl"),
        QStringLiteral("Switches the receiver to its application or its bootloader."), none,
        [this](QCommandLineParser& p) {
            const QString which = positional(p, skipWords_, 1, QStringLiteral("app or bl")).first();
            if (which != QLatin1String("app") && which != QLatin1String("bl"))
                throw CliError{EXIT_USAGE, QStringLiteral("mode must be app or bl, not \"%1\"").arg(which)};
            connectReceiver(p);
            mode(which);
        }};
}

void Gnxctl::ports()
{
    QString text;
    for (const auto& p : Com::ComManager::systemPorts())
        if (p.vendorId == Com::ComManager::kGnxVendorId && p.productId == Com::ComManager::kGnxProductId)
            text +=
                QStringLiteral("%1\t%2\tUSB %3:%4\n")
                    .arg(p.systemLocation, p.serialNumber.isEmpty() ? QStringLiteral("-") : p.serialNumber)
                    .arg(p.vendorId, 4, 16, QLatin1Char('0'))
                    .arg(p.productId, 4, 16, QLatin1Char('0'));
    for (const QString& path : Com::ComManager::extraPortPaths())
        text += QStringLiteral("%1\t-\t%2\n").arg(path, QLatin1String(Com::ComManager::kExtraPortsVariable));
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
        {QStringLiteral("band"),
         d.band == GnxLink::ORVIABAND_INVALID ? QStringLiteral("INVALID") : GnxLink::bandDescription(d.band)},
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

void Gnxctl::timeGet()
{
    const GnxLink::SetupSoftware setup = link_->getSetupSoftware();
    out(clockText(setup.mjd, setup.secondsOfDay) + QLatin1Char('\n'));
}

void Gnxctl::timeSync()
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const auto dt =
        MRL::Utils::DateTime::fromUtc(now.date().year(), now.date().month(), now.date().day(),
                                      now.time().hour(), now.time().minute(), now.time().second());
    link_->setTime(dt.mjd(), dt.secondsOfDay());
    timeGet();
}

void Gnxctl::send(const QString& command)
{
    link_->sendManualCommand(command);
    out(link_->replyValues().join(QLatin1Char(',')) + QLatin1Char('\n'));
}

void Gnxctl::mode(const QString& which)
{
    if (modeName(device_.mode) != which)
        link_->switchMode();
}

} // namespace OrviaGonioManager::Cli
