// gnxctl: fixes from the bearings of received messages read back from a file, computed by the
// Bearings window's own code; no receiver needed.
#include "cli/Gnxctl.h"

#include "com/PlatformsCheck.h"
#include "geo/BearingExport.h"
#include "geo/BearingSet.h"
#include "utils/GpsFormat.h"
#include "utils/PlatformNumber.h"
#include "utils/RxJson.h"

#include <CLI/CLI.hpp>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <cmath>
#include <cstdio>
#include <optional>
#include <vector>

namespace OrviaGonioManager::Cli {

using Com::GnxLink;
using Utils::RxTableModel;

namespace {

constexpr int kFormatVersion = 1;
const QStringList kFormats{QStringLiteral("json"), QStringLiteral("geojson"), QStringLiteral("kml"),
                           QStringLiteral("gpx")};

// A figure of a fix, or null when there is none.
QJsonValue figure(bool ok, double value)
{
    return ok && std::isfinite(value) ? QJsonValue(value) : QJsonValue();
}

double positiveNumber(const CliArgs& a, const QString& option, const QString& what)
{
    bool ok = false;
    const double value = a.value(option).toDouble(&ok);
    if (!ok || !(value > 0) || !std::isfinite(value))
        throw CliError{EXIT_USAGE, QStringLiteral("--%1 takes %2").arg(option, what), 0, option};
    return value;
}

// One message a line, as "flash read --format jsonl" and "monitor --format jsonl" write them; blank
// lines are skipped. A bad line is named with its number.
std::vector<RxTableModel::Row> readMessages(const QString& fileName)
{
    const bool standardInput = fileName.isEmpty() || fileName == QLatin1String("-");
    const QString name = standardInput ? QStringLiteral("standard input") : fileName;
    QFile file(fileName);
    if (!(standardInput ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly)))
        throw CliError{EXIT_USAGE,
                       QStringLiteral("Unable to open messages file %1: %2").arg(name, file.errorString())};
    std::vector<RxTableModel::Row> rows;
    int number = 0;
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        ++number;
        line = line.trimmed();
        if (line.isEmpty())
            continue;
        const auto bad = [&](const QString& problem, const QString& field = {}) {
            return CliError{EXIT_USAGE, QStringLiteral("%1, line %2: %3").arg(name).arg(number).arg(problem),
                            number, field};
        };
        QJsonParseError parse;
        const QJsonDocument doc = QJsonDocument::fromJson(line, &parse);
        if (parse.error != QJsonParseError::NoError)
            throw bad(
                QStringLiteral("not JSON (%1 at byte %2)").arg(parse.errorString()).arg(parse.offset + 1));
        if (!doc.isObject())
            throw bad(QStringLiteral("not a JSON object"));
        QString error, field;
        std::optional<RxTableModel::Row> row = Utils::rxFromJson(doc.object(), &error, &field);
        if (!row)
            throw bad(error, field);
        rows.push_back(std::move(*row));
    }
    if (file.error() != QFileDevice::NoError)
        throw CliError{EXIT_USAGE,
                       QStringLiteral("Unable to read messages file %1: %2").arg(name, file.errorString())};
    return rows;
}

QJsonObject platformJson(const Geo::BearingSet::Platform& p, const Geo::Fix& f)
{
    return {
        {QStringLiteral("platform"), p.id},
        {QStringLiteral("label"), p.label},
        {QStringLiteral("messages"), qint64(p.bearings.size())},
        {QStringLiteral("ok"), f.ok},
        {QStringLiteral("reason"), f.ok ? QString() : f.reason},
        {QStringLiteral("latitude"), figure(f.ok, f.position.latitude)},
        {QStringLiteral("longitude"), figure(f.ok, f.position.longitude)},
        {QStringLiteral("semiMajor"), figure(f.ok, f.semiMajor)},
        {QStringLiteral("semiMinor"), figure(f.ok, f.semiMinor)},
        {QStringLiteral("orientation"), figure(f.ok, f.orientation)},
        {QStringLiteral("cep"), figure(f.ok, f.cep)},
        {QStringLiteral("used"), f.used},
        {QStringLiteral("outliers"), f.outliers},
        {QStringLiteral("rms"), figure(f.ok, f.rms)},
    };
}

QByteArray resultJson(const Geo::BearingSet& set, const std::map<QString, Geo::Fix>& fixes, int angleOffset)
{
    QJsonArray platforms;
    for (const auto& [id, p] : set.platforms())
        platforms.append(platformJson(p, fixes.at(id)));
    QJsonObject o{
        {QStringLiteral("formatVersion"), kFormatVersion},
        {QStringLiteral("directionReference"),
         set.relative() ? QStringLiteral("heading") : QStringLiteral("north")},
        {QStringLiteral("platforms"), platforms},
    };
    // Only messages with both the receiver's and the platform's position make samples.
    const Geo::AntennaCheck check = set.antennaCheck(angleOffset);
    if (check.error.count > 0)
        o.insert(QStringLiteral("antennaCheck"),
                 QJsonObject{
                     {QStringLiteral("samples"), check.error.count},
                     {QStringLiteral("meanError"), check.meanError()},
                     {QStringLiteral("spread"), figure(true, check.error.deviation)},
                     {QStringLiteral("angleOffset"), angleOffset},
                     {QStringLiteral("suggestedOffset"),
                      check.suggestedOffset ? QJsonValue(*check.suggestedOffset) : QJsonValue()},
                 });
    return QJsonDocument(o).toJson(QJsonDocument::Compact) + '\n';
}

} // namespace

void Gnxctl::addBearingsCommands()
{
    CLI::App& c = command(
        QStringLiteral("bearings"),
        QStringLiteral("Fixes from bearings and the antenna check, as the Bearings window computes "
                       "them, of messages saved by \"flash read\" or \"monitor\" with --format jsonl. "
                       "Needs no receiver."),
        [this](const CliArgs& a) { bearings(a); });
    c.add_option("file", "The messages, one JSON object a line (\"-\" or none: standard input).")
        ->type_name("FILE");
    c.add_option("--format", "json (the fixes), geojson, kml or gpx (the window's exports).")
        ->default_str("json")
        ->type_name("FORMAT");
    c.add_flag("--relative", "Directions are relative to the receiver's heading (the window's \"Direction "
                             "relative to heading\"); without it, from north.");
    c.add_option("--range", "Length of the bearing lines of geojson and kml, in km.")
        ->default_str("50")
        ->type_name("KM");
    c.add_option("--angle-offset", "The receiver's current \"Angle offset\", from which the antenna check "
                                   "suggests one.")
        ->default_str("0")
        ->type_name("N");
    c.add_option("--platform", "Keep this platform only (its number, 5 or 7 digits: 2A1B3 is 002A1B3).")
        ->type_name("ID");
    c.add_option(
         "--platforms",
         "Labels and GPS formats by identifier, as \"platforms export\" writes them: the labels come "
         "from it and the payload positions are decoded again (without it: those the messages carry).")
        ->type_name("FILE");
    c.add_option("--formats", "GPS formats file for --platforms (without it: the window's file, "
                              "~/.local/share/OrviaGonioManager/Data/format.vtl, else the installed one).")
        ->type_name("FILE");
    c.add_option("-o,--output", "Write to FILE, completely or not at all (a device or a FIFO is written in "
                                "place; \"-\" or none: standard output).")
        ->type_name("FILE");
}

void Gnxctl::bearings(const CliArgs& a)
{
    const QString format = a.value(QStringLiteral("format"));
    if (!kFormats.contains(format))
        throw CliError{EXIT_USAGE,
                       QStringLiteral("unknown format \"%1\" (json, geojson, kml or gpx)").arg(format)};
    const double range = positiveNumber(a, QStringLiteral("range"), QStringLiteral("a length in km above 0"));
    bool ok = false;
    const int angleOffset = a.value(QStringLiteral("angle-offset")).toInt(&ok);
    if (!ok || angleOffset < 0 || angleOffset > 65535)
        throw CliError{EXIT_USAGE, QStringLiteral("--angle-offset takes a whole number from 0 to 65535"), 0,
                       QStringLiteral("angle-offset")};
    const QString only = platformOption(a);

    const QString platformsFile = a.value(QStringLiteral("platforms"));
    loadFormats(a, !platformsFile.isEmpty());
    std::optional<GnxLink::GnxVersion_t> version;
    if (!platformsFile.isEmpty())
        version = loadPlatformsFile(platformsFile);

    std::vector<RxTableModel::Row> rows = readMessages(a.value(QStringLiteral("file")));
    std::vector<RxTableModel::Row> kept;
    kept.reserve(rows.size());
    for (RxTableModel::Row& row : rows) {
        if (version) // labels and positions from the file's favourites, as the window's table makes them
            row = rows_.rowFor(row.message, row.flash ? GnxLink::RXORIGIN_FLASH : GnxLink::RXORIGIN_LIVE,
                               *version, Com::PlatformsCheck::slotCount(*version));
        if (only.isEmpty() || Utils::PlatformNumber::shortest(row.byNumber.platform) == only)
            kept.push_back(std::move(row));
    }

    Geo::BearingSet set;
    set.setRelative(a.isSet(QStringLiteral("relative")));
    set.rebuild(kept);
    const Geo::BearingExport::Content content{&set, set.fixes(), range * 1000.0};
    const QByteArray bytes = format == QLatin1String("geojson") ? Geo::BearingExport::geoJson(content)
                             : format == QLatin1String("kml")   ? Geo::BearingExport::kml(content)
                             : format == QLatin1String("gpx")   ? Geo::BearingExport::gpx(content)
                                                                : resultJson(set, content.fixes, angleOffset);
    writeOutput(a.value(QStringLiteral("output")), QStringLiteral("bearings file"), bytes);
}

// The favourites of a platforms file for the rows' lookup; the generation is told by the columns.
GnxLink::GnxVersion_t Gnxctl::loadPlatformsFile(const QString& fileName)
{
    using Com::PlatformsCheck;
    QList<PlatformsCheck::Line> lines;
    GnxLink::GnxVersion_t version = GnxLink::GNX_V2;
    try {
        const QList<Com::PlatformsFile::NumberedLine> numbered = PlatformsCheck::readFile(fileName);
        if (!numbered.isEmpty() && numbered.first().text.split(QLatin1Char(',')).size() ==
                                       GnxLink::platformTitles().value(GnxLink::GNX_V1).size())
            version = GnxLink::GNX_V1;
        // Format names as texts: one only a receiver knew costs its positions, not the fixes.
        lines = PlatformsCheck::check(numbered, version, fileName, PlatformsCheck::Formats::TextOnly);
    } catch (const PlatformsCheck::Error& e) {
        throw CliError{EXIT_USAGE, e.message(), e.line(), e.field()};
    }
    QHash<QString, RxTableModel::Favourite> favourites;
    for (qsizetype slot = 0; slot < lines.size(); ++slot) {
        const PlatformsCheck::Line& l = lines[slot];
        const QString& name = l.gpsFormatName;
        if (!name.isEmpty() && !Utils::GpsFormat::instance()->getGpsFormat(name) && !quiet_)
            std::fprintf(stderr,
                         "gnxctl: %s, line %d: GPS format \"%s\" unknown: no payload positions for %s (name "
                         "its file with --formats)\n",
                         QFile::encodeName(fileName).constData(), l.number, name.toLocal8Bit().constData(),
                         l.platform.id.toLocal8Bit().constData());
        favourites.insert(l.platform.id, {QString::number(slot), l.platform.label, name});
    }
    rows_.setFavourites(favourites);
    return version;
}

} // namespace OrviaGonioManager::Cli
