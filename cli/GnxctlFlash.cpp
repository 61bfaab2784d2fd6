// gnxctl: the flash memory and live reception.
#include "cli/Gnxctl.h"

#include "cli/ProgressPrinter.h"
#include "cli/RxWriter.h"
#include "cli/StopSignal.h"
#include "mrl/utils/Exception.h"
#include "utils/FlashMemory.h"
#include "utils/FlashRead.h"
#include "utils/GpsFormat.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QSaveFile>
#include <QTimer>

#include <optional>
#include <vector>

namespace OrviaGonioManager::Cli {

using Com::GnxLink;
using Utils::RxTableModel;

namespace {

void addOutputOptions(QCommandLineParser& p)
{
    p.addOption({QStringLiteral("format"), QStringLiteral("csv (the RX export), jsonl or npr (default csv)."),
                 QStringLiteral("FORMAT"), QStringLiteral("csv")});
    p.addOption({QStringLiteral("formats"), QStringLiteral("GPS formats file, to decode payload positions."),
                 QStringLiteral("FILE")});
}

QString outputFormat(const QCommandLineParser& p)
{
    const QString format = p.value(QStringLiteral("format"));
    if (!RxWriter::isFormat(format))
        throw CliError{EXIT_USAGE, QStringLiteral("unknown format \"%1\" (csv, jsonl or npr)").arg(format)};
    return format;
}

// Standard output as a device.
QFile& standardOutput()
{
    static QFile file;
    if (!file.isOpen())
        file.open(stdout, QIODevice::WriteOnly, QFileDevice::DontCloseHandle);
    return file;
}

} // namespace

void Gnxctl::addFlashCommands()
{
    commands_ << Command{
        QStringLiteral("flash read"),
        QStringLiteral("gnxctl flash read [-o FILE] [--format csv|jsonl|npr] [--formats FILE]"),
        QStringLiteral("The whole flash memory, decoded."),
        [](QCommandLineParser& p) {
            addOutputOptions(p);
            p.addOption({{QStringLiteral("o"), QStringLiteral("output")},
                         QStringLiteral("Write to FILE, completely or not at all."),
                         QStringLiteral("FILE")});
        },
        [this](QCommandLineParser& p) {
            positional(p, skipWords_, 0, {});
            outputFormat(p);
            loadFormats(p);
            connectReceiver(p);
            flashRead(p);
        }};
    commands_ << Command{QStringLiteral("flash erase"), QStringLiteral("gnxctl flash erase --yes"),
                         QStringLiteral("Erases the flash memory."),
                         [](QCommandLineParser& p) {
                             p.addOption({QStringLiteral("yes"), QStringLiteral("Confirms the erase.")});
                         },
                         [this](QCommandLineParser& p) {
                             positional(p, skipWords_, 0, {});
                             if (!p.isSet(QStringLiteral("yes")))
                                 throw CliError{EXIT_USAGE, QStringLiteral("flash erase needs --yes")};
                             connectReceiver(p);
                             flashErase(true);
                         }};
    commands_ << Command{QStringLiteral("monitor"),
                         QStringLiteral("gnxctl monitor [--format csv|jsonl|npr] [--count N] [--duration S] "
                                        "[--mqtt URL]"),
                         QStringLiteral("Live reception until Ctrl-C; each message is flushed as it comes. "
                                        "With --mqtt, a station that publishes to a broker."),
                         [](QCommandLineParser& p) {
                             addOutputOptions(p);
                             p.addOption({QStringLiteral("count"), QStringLiteral("Stop after N messages."),
                                          QStringLiteral("N")});
                             p.addOption({QStringLiteral("duration"), QStringLiteral("Stop after S seconds."),
                                          QStringLiteral("S")});
                             addStationOptions(p);
                         },
                         [this](QCommandLineParser& p) {
                             positional(p, skipWords_, 0, {});
                             outputFormat(p);
                             loadFormats(p);
                             if (p.isSet(QStringLiteral("mqtt"))) {
                                 monitorMqtt(p);
                                 return;
                             }
                             connectReceiver(p);
                             monitor(p);
                         }};
}

void Gnxctl::loadFormats(const QCommandLineParser& parser)
{
    const QString path = parser.value(QStringLiteral("formats"));
    if (path.isEmpty())
        return;
    try {
        Utils::GpsFormat::instance()->readGpsFormatsFile(path);
    } catch (const MRL::Utils::Exception& e) {
        throw CliError{EXIT_USAGE, e.message()};
    }
}

// The favourites, for the labels and payload positions of the rows (and the slots a GNX134
// reads its flash by).
std::map<int, QString> Gnxctl::loadFavourites()
{
    QHash<QString, RxTableModel::Favourite> favourites;
    std::map<int, QString> usedSlots;
    for (int i = 0; i < link_->maxPlatformsNumber(); ++i) {
        const GnxLink::PlatformInfo p = link_->getPlatformInfo(i);
        if (p.id.isEmpty())
            continue;
        favourites.insert(p.id, {QString::number(i), p.label, p.gpsFormat ? p.gpsFormat->name : QString()});
        usedSlots.emplace(i, p.id);
    }
    rows_.setFavourites(favourites);
    return usedSlots;
}

void Gnxctl::flashRead(const QCommandLineParser& parser)
{
    const std::map<int, QString> usedSlots = loadFavourites();
    const GnxLink::CoordType_t coordType = link_->getSetupSoftware().coordType;

    std::vector<RxTableModel::Row> batch;
    const auto collect = QObject::connect(
        Utils::FlashMemory::instance(), &Utils::FlashMemory::sigOrviaDecoded,
        [&](const Com::OrviaRxMessage_t& m, GnxLink::RxOrigin_t origin) {
            batch.push_back(rows_.rowFor(m, origin, link_->version(), link_->maxPlatformsNumber()));
        });
    ProgressPrinter progress(job_, stderr);
    std::exception_ptr failure;
    try {
        Utils::readWholeFlash(*link_, job_, usedSlots);
    } catch (const MRL::Utils::Exception&) {
        failure = std::current_exception();
    }
    QObject::disconnect(collect);

    // Newest first, as the window shows and exports them.
    RxTableModel table;
    table.setCoordType(coordType);
    table.addRows(std::move(batch));
    table.sort(RxTableModel::COL_TIME, Qt::DescendingOrder);

    const QString path = parser.value(QStringLiteral("output"));
    QSaveFile file(path);
    // A read that failed part-way writes what it read to standard output, never a partial file.
    if (!path.isEmpty() && !failure && !file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        throw CliError{EXIT_USAGE, QStringLiteral("Unable to open output file %1").arg(path)};
    QIODevice& out = path.isEmpty() || failure ? static_cast<QIODevice&>(standardOutput()) : file;
    RxWriter writer(out, outputFormat(parser), *link_, coordType);
    bool writing = writer.begin();
    for (int row = 0; writing && row < table.allRowCount(); ++row)
        writing = writer.write(table.rowAt(row));
    if (!writing && path.isEmpty() && !failure)
        return; // the reader went away: a quiet end
    if (failure)
        std::rethrow_exception(failure);
    if (!path.isEmpty() && (!writing || !file.commit()))
        throw CliError{EXIT_USAGE, QStringLiteral("Unable to write output file %1").arg(path)};
}

void Gnxctl::flashErase(bool)
{
    if (link_->version() != GnxLink::GNX_V1) {
        link_->deleteFlashMemory();
        return;
    }
    for (int i = 0; i < link_->maxPlatformsNumber(); ++i)
        if (!link_->getPlatformInfo(i).id.isEmpty())
            link_->deletePlatformFlashMemory(i);
}

void Gnxctl::monitor(const QCommandLineParser& parser)
{
    bool ok = true;
    const qint64 count =
        parser.isSet(QStringLiteral("count")) ? parser.value(QStringLiteral("count")).toLongLong(&ok) : -1;
    if (!ok || count == 0)
        throw CliError{EXIT_USAGE, QStringLiteral("--count takes a positive number")};
    const double duration = parser.isSet(QStringLiteral("duration"))
                                ? parser.value(QStringLiteral("duration")).toDouble(&ok)
                                : -1;
    if (!ok || duration == 0)
        throw CliError{EXIT_USAGE, QStringLiteral("--duration takes a positive number of seconds")};
    loadFavourites();
    RxWriter writer(standardOutput(), outputFormat(parser), *link_, link_->getSetupSoftware().coordType);

    QEventLoop loop;
    std::optional<CliError> failure;
    qint64 written = 0;
    const auto stop = [&] { loop.quit(); };
    if (!writer.begin())
        return; // the reader went away: a quiet end
    QObject::connect(
        link_.get(), &GnxLink::sigOrviaMessageReceived, &loop,
        [&](const Com::OrviaRxMessage_t& m, GnxLink::RxOrigin_t origin) {
            if (!writer.write(rows_.rowFor(m, origin, link_->version(), link_->maxPlatformsNumber())) ||
                ++written == count)
                stop();
        });
    QObject::connect(link_.get(), &GnxLink::sigLinkCompromised, &loop,
                     [&](const QString&, const QString& message) {
                         failure = CliError{EXIT_DEVICE, message};
                         stop();
                     });
    StopSignal signal;
    QObject::connect(&signal, &StopSignal::sigStop, &loop, stop);
    if (duration > 0)
        QTimer::singleShot(qint64(duration * 1000), &loop, stop);
    link_->setLiveRxEnabled(true);
    loop.exec();
    if (failure)
        throw *failure;
}

} // namespace OrviaGonioManager::Cli
