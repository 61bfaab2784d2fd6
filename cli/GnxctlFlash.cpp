// gnxctl: the flash memory and live reception.
#include "cli/Gnxctl.h"

#include "cli/ProgressPrinter.h"
#include "cli/RxWriter.h"
#include "cli/StopSignal.h"
#include "mrl/utils/Exception.h"
#include "store/MessageStore.h"
#include "utils/FlashMemory.h"
#include "utils/FlashRead.h"
#include "utils/GpsFormat.h"
#include "utils/OutputFile.h"

#include <CLI/CLI.hpp>

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QTimer>

#include <optional>
#include <vector>

namespace OrviaGonioManager::Cli {

using Com::GnxLink;
using Utils::RxTableModel;

namespace {

void addOutputOptions(CLI::App& c)
{
    c.add_option("--format", "csv (the RX export), jsonl or npr.")->default_str("csv")->type_name("FORMAT");
    c.add_option("--formats", "GPS formats file, to decode payload positions.")->type_name("FILE");
}

QString outputFormat(const CliArgs& a)
{
    const QString format = a.value(QStringLiteral("format"));
    if (!RxWriter::isFormat(format))
        throw CliError{EXIT_USAGE, QStringLiteral("unknown format \"%1\" (csv, jsonl or npr)").arg(format)};
    return format;
}

} // namespace

void Gnxctl::addFlashCommands()
{
    CLI::App& read = command(QStringLiteral("flash read"), QStringLiteral("The whole flash memory, decoded."),
                             [this](const CliArgs& a) {
                                 outputFormat(a);
                                 loadFormats(a);
                                 connectReceiver(a);
                                 flashRead(a);
                             });
    addOutputOptions(read);
    read.add_option("--db", "Also keep the messages in the message store at URL (a path, sqlite:PATH or "
                            "postgresql://...); reading the same memory again adds nothing.")
        ->type_name("URL");
    read.add_option("-o,--output",
                    "Write to FILE, completely or not at all (a device or a FIFO is written in place; "
                    "\"-\" or none: standard output).")
        ->type_name("FILE");
    command(QStringLiteral("flash erase"), QStringLiteral("Erases the flash memory."),
            [this](const CliArgs& a) {
                if (!a.isSet(QStringLiteral("yes")))
                    throw CliError{EXIT_USAGE, QStringLiteral("flash erase needs --yes")};
                connectReceiver(a);
                flashErase(true);
            })
        .add_flag("--yes", "Confirms the erase.");
    CLI::App& monitor = command(
        QStringLiteral("monitor"),
        QStringLiteral("Live reception until Ctrl-C; each message is flushed as it comes. With --mqtt, "
                       "a station that publishes to a broker."),
        [this](const CliArgs& a) {
            outputFormat(a);
            loadFormats(a);
            if (a.isSet(QStringLiteral("mqtt"))) {
                if (a.isSet(QStringLiteral("db")))
                    throw CliError{EXIT_USAGE,
                                   QStringLiteral("--db and --mqtt go apart: a station's messages "
                                                  "are kept by gnxctl archive at the broker")};
                monitorMqtt(a);
                return;
            }
            connectReceiver(a);
            this->monitor(a);
        });
    addOutputOptions(monitor);
    monitor.add_option("--count", "Stop after N messages.")->type_name("N");
    monitor.add_option("--duration", "Stop after S seconds.")->type_name("S");
    monitor
        .add_option("--db", "Also keep the messages in the message store at URL (a path, sqlite:PATH or "
                            "postgresql://...), committed every second and at the end.")
        ->type_name("URL");
    addStationOptions(monitor);
}

void Gnxctl::loadFormats(const CliArgs& a, bool orFound)
{
    QString path = a.value(QStringLiteral("formats"));
    if (path.isEmpty() && orFound) {
        // The window's own file in the user's tree, else the one the package installs.
        QString data = qEnvironmentVariable("XDG_DATA_HOME");
        if (data.isEmpty())
            data = QDir::homePath() + QStringLiteral("/.local/share");
        for (const QString& candidate : {data + QStringLiteral("/OrviaGonioManager/Data/format.vtl"),
                                         QStringLiteral("/usr/share/orvia-gonio-manager/format.vtl")})
            if (QFileInfo(candidate).isFile()) {
                path = candidate;
                break;
            }
    }
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

void Gnxctl::flashRead(const CliArgs& a)
{
    // Opened first, so that a wrong path fails before a long read.
    const QString path = a.value(QStringLiteral("output"));
    Utils::OutputFile file(path);
    const bool toStdout = openOutput(file, path);
    // Opened before the read too: a store that cannot be used fails at once.
    std::unique_ptr<Store::MessageStore> store;
    const QString db = a.value(QStringLiteral("db"));
    if (!db.isEmpty())
        store = openReceiverStore(db);
    const std::map<int, QString> usedSlots = loadFavourites();
    const GnxLink::CoordType_t coordType = link_->getSetupSoftware().coordType;

    std::vector<RxTableModel::Row> batch;
    const auto collect = QObject::connect(
        Utils::FlashMemory::instance(), &Utils::FlashMemory::sigOrviaDecoded,
        [&](const Com::OrviaRxMessage_t& m, GnxLink::RxOrigin_t origin) {
            batch.push_back(rows_.rowFor(m, origin, link_->version(), link_->maxPlatformsNumber()));
        });
    ProgressPrinter progress(job_, quiet_ ? nullptr : stderr);
    std::exception_ptr failure;
    try {
        Utils::readWholeFlash(*link_, job_, usedSlots);
    } catch (const MRL::Utils::Exception&) {
        failure = std::current_exception();
    }
    QObject::disconnect(collect);
    // What was read is kept, also when the read failed part-way.
    if (store) {
        QString error;
        const int added = store->addBatch(serialOf(device_), batch, &error);
        if (added < 0)
            throw CliError{EXIT_STORE, error};
        if (!quiet_)
            std::fprintf(
                stderr, "%s\n",
                qPrintable(
                    QStringLiteral("Message store: %1 new of %2 messages").arg(added).arg(batch.size())));
    }

    // Newest first, as the window shows and exports them.
    RxTableModel table;
    table.setCoordType(coordType);
    table.addRows(std::move(batch));
    table.sort(RxTableModel::COL_TIME, Qt::DescendingOrder);

    // A read that failed part-way writes what it read to standard output, never a partial file.
    QIODevice& out = toStdout || failure ? static_cast<QIODevice&>(standardOutput()) : *file.device();
    RxWriter writer(out, outputFormat(a), *link_, coordType);
    bool writing = writer.begin();
    for (int row = 0; writing && row < table.allRowCount(); ++row)
        writing = writer.write(table.rowAt(row));
    if (!writing && toStdout && !failure)
        return; // the reader went away: a quiet end
    if (failure)
        std::rethrow_exception(failure);
    if (!toStdout && (!writing || !file.commit()))
        throw CliError{EXIT_USAGE,
                       QStringLiteral("Unable to write output file %1: %2").arg(path, file.errorString())};
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

void Gnxctl::monitor(const CliArgs& a)
{
    bool ok = true;
    const qint64 count =
        a.isSet(QStringLiteral("count")) ? a.value(QStringLiteral("count")).toLongLong(&ok) : -1;
    if (!ok || count == 0)
        throw CliError{EXIT_USAGE, QStringLiteral("--count takes a positive number")};
    const double duration =
        a.isSet(QStringLiteral("duration")) ? a.value(QStringLiteral("duration")).toDouble(&ok) : -1;
    if (!ok || duration == 0)
        throw CliError{EXIT_USAGE, QStringLiteral("--duration takes a positive number of seconds")};
    std::unique_ptr<Store::MessageStore> store;
    if (a.isSet(QStringLiteral("db")))
        store = openReceiverStore(a.value(QStringLiteral("db")));
    loadFavourites();
    RxWriter writer(standardOutput(), outputFormat(a), *link_, link_->getSetupSoftware().coordType);

    QEventLoop loop;
    std::optional<CliError> failure;
    qint64 written = 0;
    const auto stop = [&] { loop.quit(); };
    // Kept in batches: one transaction a second, not one a message.
    std::vector<RxTableModel::Row> pending;
    const auto keep = [&] {
        QString error;
        if (store && !pending.empty() && store->addBatch(serialOf(device_), pending, &error) < 0) {
            failure = CliError{EXIT_STORE, error};
            stop();
        }
        pending.clear();
    };
    QTimer commit;
    QObject::connect(&commit, &QTimer::timeout, &loop, keep);
    if (store)
        commit.start(1000);
    if (!writer.begin())
        return; // the reader went away: a quiet end
    QObject::connect(link_.get(), &GnxLink::sigOrviaMessageReceived, &loop,
                     [&](const Com::OrviaRxMessage_t& m, GnxLink::RxOrigin_t origin) {
                         RxTableModel::Row row =
                             rows_.rowFor(m, origin, link_->version(), link_->maxPlatformsNumber());
                         if (store)
                             pending.push_back(row);
                         if (!writer.write(row) || ++written == count)
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
    if (!failure)
        keep();
    if (failure)
        throw *failure;
}

} // namespace OrviaGonioManager::Cli
