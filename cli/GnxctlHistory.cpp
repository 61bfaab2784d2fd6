// gnxctl: the messages kept in the message store, chosen as the History window chooses them and
// written in the command line's formats. Needs no receiver.
#include "cli/Gnxctl.h"

#include "store/HistoryExport.h"
#include "store/MessageStore.h"
#include "utils/OutputFile.h"
#include "utils/PlatformNumber.h"

#include <CLI/CLI.hpp>

#include <QFile>
#include <QRegularExpression>
#include <QTimeZone>

#include <cstdio>

namespace OrviaGonioManager::Cli {

using Store::HistoryExport;
using Store::MessageStore;

namespace {

// ISO 8601: a date (its midnight), or a date and time, UTC unless it names its offset.
QDateTime parseTime(const CliArgs& a, const QString& option)
{
    const QString text = a.value(option).trimmed();
    QString iso = text;
    if (iso.size() > 10 && iso[10] == QLatin1Char(' '))
        iso[10] = QLatin1Char('T');
    static const QRegularExpression zone(QStringLiteral("(Z|[+-]\\d\\d(:?\\d\\d)?)$"));
    static const QRegularExpression date(QStringLiteral("^\\d{4}-\\d\\d-\\d\\d$"));
    QDateTime at;
    if (date.match(iso).hasMatch())
        at = QDateTime(QDate::fromString(iso, Qt::ISODate), QTime(0, 0), QTimeZone::utc());
    else if (iso.contains(QLatin1Char('T'))) {
        at = QDateTime::fromString(iso, Qt::ISODateWithMs);
        if (at.isValid() && !zone.match(iso.mid(11)).hasMatch())
            at.setTimeZone(QTimeZone::utc());
    }
    if (!at.isValid())
        throw CliError{
            EXIT_USAGE,
            QStringLiteral("--%1 takes a time in ISO 8601, UTC unless an offset is given "
                           "(2026-11-23, 2026-11-23T22:00:00Z, 2026-11-23T23:00+01:00), not \"%2\"")
                .arg(option, text),
            0, option};
    return at.toUTC();
}

} // namespace

void Gnxctl::addHistoryCommands()
{
    CLI::App& c = command(
        QStringLiteral("history"),
        QStringLiteral("The messages kept in the message store, oldest first, chosen as the History window "
                       "chooses them. Needs no receiver."),
        [this](const CliArgs& a) { history(a); });
    c.add_option("--db",
                 "The store: a path, sqlite:PATH or postgresql://user@host:port/database (without it: "
                 "the one the window keeps messages in).")
        ->type_name("URL");
    c.add_option("--receiver", "Messages of the receiver with this serial number only.")->type_name("SERIAL");
    c.add_option("--platform",
                 "Messages of this platform only (its number, 5 or 7 digits: 2A1B3 is 002A1B3).")
        ->type_name("ID");
    c.add_option("--origin", "live, flash or any.")->default_str("any")->type_name("ORIGIN");
    c.add_option("--from", "Messages sent at or after this time (ISO 8601, UTC unless an offset is given: "
                           "2026-11-23, 2026-11-23T22:00:00Z).")
        ->type_name("TIME");
    c.add_option("--to", "Messages sent before this time.")->type_name("TIME");
    c.add_option("--limit", "The oldest N messages only.")->type_name("N");
    c.add_option("--format", "csv (the RX export), jsonl (as monitor writes it), json (one array) or geojson "
                             "(points at the payload and receiver positions); json with --json.")
        ->default_str("csv")
        ->type_name("FORMAT");
    c.add_option("-o,--output", "Write to FILE, completely or not at all (a device or a FIFO is written in "
                                "place; \"-\" or none: standard output).")
        ->type_name("FILE");
}

void Gnxctl::history(const CliArgs& a)
{
    const QString formatName = json_ && !a.isSet(QStringLiteral("format"))
                                   ? QStringLiteral("json")
                                   : a.value(QStringLiteral("format"));
    const std::optional<HistoryExport::Format> format = HistoryExport::format(formatName);
    if (!format)
        throw CliError{EXIT_USAGE,
                       QStringLiteral("unknown format \"%1\" (csv, jsonl, json or geojson)").arg(formatName),
                       0, QStringLiteral("format")};
    MessageStore::Query query;
    query.receiver = a.value(QStringLiteral("receiver")).trimmed();
    query.platform = platformOption(a);
    const QString origin = a.value(QStringLiteral("origin"));
    if (origin == QLatin1String("live"))
        query.origin = MessageStore::Query::Origin::Live;
    else if (origin == QLatin1String("flash"))
        query.origin = MessageStore::Query::Origin::Flash;
    else if (origin != QLatin1String("any"))
        throw CliError{EXIT_USAGE,
                       QStringLiteral("--origin takes live, flash or any, not \"%1\"").arg(origin), 0,
                       QStringLiteral("origin")};
    if (a.isSet(QStringLiteral("from")))
        query.from = parseTime(a, QStringLiteral("from"));
    if (a.isSet(QStringLiteral("to")))
        query.to = parseTime(a, QStringLiteral("to"));
    if (query.from.isValid() && query.to.isValid() && query.to <= query.from)
        throw CliError{EXIT_USAGE, QStringLiteral("--to must come after --from"), 0, QStringLiteral("to")};
    if (a.isSet(QStringLiteral("limit"))) {
        bool ok = false;
        query.limit = a.value(QStringLiteral("limit")).toInt(&ok);
        if (!ok || query.limit <= 0)
            throw CliError{EXIT_USAGE, QStringLiteral("--limit takes a positive whole number"), 0,
                           QStringLiteral("limit")};
    }

    // Opened first, so that a wrong path fails before the store is read.
    const QString path = a.value(QStringLiteral("output"));
    Utils::OutputFile file(path);
    const bool toStdout = openOutput(file, path);
    const QString db = a.value(QStringLiteral("db"));
    const auto store =
        openStore(db.isEmpty() ? MessageStore::defaultUrl() : db, MessageStore::Access::ReadOnly);
    QString error;
    const std::vector<Utils::RxTableModel::Row> rows = store->query(query, &error);
    if (!error.isEmpty())
        throw CliError{EXIT_STORE, error};
    if (rows.empty() && !quiet_)
        std::fprintf(stderr, "gnxctl: no messages in %s match\n", qPrintable(store->shownUrl()));

    QIODevice& out = toStdout ? static_cast<QIODevice&>(standardOutput()) : *file.device();
    const bool written = HistoryExport::write(out, *format, rows) && (toStdout || file.commit());
    if (!written && !toStdout)
        throw CliError{EXIT_USAGE,
                       QStringLiteral("Unable to write output file %1: %2").arg(path, file.errorString())};
    // On standard output, a reader gone is a quiet end.
}

} // namespace OrviaGonioManager::Cli
