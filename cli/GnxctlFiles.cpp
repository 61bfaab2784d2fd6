// gnxctl: the commands that read or write the files shared with the window: platforms, scripts,
// GPS formats and firmware.
#include "cli/Gnxctl.h"

#include "cli/ProgressPrinter.h"
#include "com/PlatformCodec.h"
#include "com/PlatformsFile.h"
#include "com/ScriptFile.h"
#include "mrl/utils/Exception.h"
#include "utils/FirmwareFile.h"
#include "utils/GpsFormat.h"

#include <QFile>
#include <QSaveFile>
#include <QTextStream>

#include <cstdio>

namespace OrviaGonioManager::Cli {

using Com::GnxLink;

namespace {

// A file the user named: its failures are usage errors (exit code 2).
template <typename F> auto fromFile(F&& f)
{
    try {
        return f();
    } catch (const MRL::Utils::Exception& e) {
        throw CliError{EXIT_USAGE, e.message()};
    }
}

} // namespace

void Gnxctl::addFileCommands()
{
    const auto none = [](QCommandLineParser&) {};
    const auto oneFile = [this](QCommandLineParser& p) {
        return positional(p, skipWords_, 1, QStringLiteral("one file")).first();
    };
    commands_ << Command{QStringLiteral("platforms export"),
                         QStringLiteral("gnxctl platforms export FILE.csv"),
                         QStringLiteral("Writes the favourite platforms in the window's CSV format."), none,
                         [=](QCommandLineParser& p) {
                             const QString file = oneFile(p);
                             connectReceiver(p);
                             platformsExport(file);
                         }};
    commands_ << Command{
        QStringLiteral("platforms import"),
        QStringLiteral("gnxctl platforms import FILE.csv [--formats FILE]"),
        QStringLiteral(
            "Replaces every favourite platform with those of the file; the GPS formats are those the "
            "receiver holds and those of --formats."),
        [](QCommandLineParser& p) {
            p.addOption(
                {QStringLiteral("formats"), QStringLiteral("GPS formats file."), QStringLiteral("FILE")});
        },
        [=](QCommandLineParser& p) {
            const QString file = oneFile(p);
            const QStringList lines = fromFile([&] { return Com::PlatformsFile::readLines(file); });
            loadFormats(p);
            connectReceiver(p);
            platformsImport(file, lines);
        }};
    commands_ << Command{QStringLiteral("formats check"), QStringLiteral("gnxctl formats check FILE"),
                         QStringLiteral("Validates a GPS formats file and reports each bad line."), none,
                         [=](QCommandLineParser& p) { formatsCheck(oneFile(p)); }};
    commands_ << Command{
        QStringLiteral("script run"), QStringLiteral("gnxctl script run FILE"),
        QStringLiteral("Plays a command script back to the receiver."), none, [=](QCommandLineParser& p) {
            const QString file = oneFile(p);
            const QStringList lines = fromFile([&] { return Com::ScriptFile::readLines(file); });
            connectReceiver(p);
            scriptRun(file, lines);
        }};
    commands_ << Command{QStringLiteral("script save"), QStringLiteral("gnxctl script save FILE"),
                         QStringLiteral("Saves the receiver's setups and favourite platforms as a script."),
                         none, [=](QCommandLineParser& p) {
                             const QString file = oneFile(p);
                             connectReceiver(p);
                             scriptSave(file);
                         }};
    commands_ << Command{
        QStringLiteral("firmware upload"), QStringLiteral("gnxctl firmware upload FILE.van"),
        QStringLiteral("Uploads a firmware (the receiver in its bootloader: \"gnxctl mode bl\")."), none,
        [=](QCommandLineParser& p) {
            const QString file = oneFile(p);
            QFile van(file);
            if (!van.open(QIODevice::ReadOnly))
                throw CliError{EXIT_USAGE, QStringLiteral("Unable to open GNX firmware file %1").arg(file)};
            const QByteArray content = van.readAll();
            connectReceiver(p);
            const auto firmware =
                fromFile([&] { return Utils::FirmwareFile::parse(content, file, int(link_->version())); });
            ProgressPrinter progress(job_, stderr);
            const Utils::JobScope scope(job_, QStringLiteral("Upload"), firmware.records.size(),
                                        QStringLiteral("records"));
            QObject::connect(link_.get(), &GnxLink::sigFirmwareProgress, &job_,
                             [this](int sent) { job_.advance(sent); });
            link_->uploadFirmware(firmware.records);
        }};
}

void Gnxctl::platformsExport(const QString& fileName)
{
    QSaveFile file(fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
        throw CliError{EXIT_USAGE, QStringLiteral("Unable to open platforms file %1").arg(fileName)};
    QTextStream out(&file);
    out << Com::PlatformsFile::header(link_->version()) << '\n';
    for (int i = 0; i < link_->maxPlatformsNumber(); ++i) {
        const GnxLink::PlatformInfo p = link_->getPlatformInfo(i);
        if (!p.id.isEmpty())
            out << Com::PlatformCodec::csvFields(p, p.gpsFormat ? p.gpsFormat->name : QString(),
                                                 link_->version())
                       .join(QLatin1Char(','))
                << '\n';
    }
    out.flush();
    if (out.status() != QTextStream::Ok || !file.commit())
        throw CliError{EXIT_USAGE, QStringLiteral("Unable to write platforms file %1").arg(fileName)};
}

void Gnxctl::platformsImport(const QString& fileName, const QStringList& lines)
{
    // The whole file is checked before anything is deleted, with the receiver's formats known.
    loadFavourites();
    fromFile([&] {
        if (lines.size() > link_->maxPlatformsNumber())
            throw MRL::Utils::Exception(
                QStringLiteral("Unable to read import whole platform file %1, too many platforms.")
                    .arg(fileName),
                2);
        for (const QString& line : lines)
            Com::PlatformsFile::parseLine(line, link_->version(), fileName);
        return 0;
    });
    // Every slot, as the window does: the file's platforms replace all.
    for (int i = 0; i < link_->maxPlatformsNumber(); ++i)
        link_->deletePlatformInfo(i);
    ProgressPrinter progress(job_, stderr);
    const Utils::JobScope scope(job_, QStringLiteral("Platform import"), lines.size(),
                                QStringLiteral("platforms"));
    try {
        Com::PlatformsFile::importLines(*link_, lines, fileName,
                                        [this](int written) { return job_.advance(written); });
    } catch (const MRL::Utils::Exception& e) {
        if (link_->isUsable()) // the file's fault, not the receiver's
            throw CliError{EXIT_USAGE, e.message()};
        throw;
    }
}

void Gnxctl::formatsCheck(const QString& fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        throw CliError{EXIT_USAGE, QStringLiteral("Unable to open GPS formats file %1").arg(fileName)};
    QStringList bad;
    int number = 0;
    int formats = 0;
    QTextStream in(&file);
    in.setEncoding(QStringConverter::Utf8);
    while (!in.atEnd()) {
        const QString line = in.readLine();
        ++number;
        if (number == 1 || line.trimmed().isEmpty() || line.startsWith(QLatin1Char('#')))
            continue; // the count line, blank lines and comments
        Utils::GpsFormat_t format;
        if (Utils::GpsFormat::parseGpsFormatLine(line, format))
            ++formats;
        else
            bad << QStringLiteral("%1:%2: not a GPS format line").arg(fileName).arg(number);
    }
    for (const QString& b : std::as_const(bad))
        std::fprintf(stderr, "gnxctl: %s\n", b.toLocal8Bit().constData());
    if (!bad.isEmpty())
        throw CliError{EXIT_USAGE, QStringLiteral("%1 bad line(s) in %2").arg(bad.size()).arg(fileName)};
    out(QStringLiteral("%1: %2 GPS formats\n").arg(fileName).arg(formats));
}

void Gnxctl::scriptRun(const QString& fileName, const QStringList& lines)
{
    ProgressPrinter progress(job_, stderr);
    const Utils::JobScope scope(job_, QStringLiteral("Script"), Com::ScriptFile::commandCount(lines),
                                QStringLiteral("lines"));
    bool failed = false;
    Com::ScriptFile::play(
        *link_, lines, fileName,
        [&](const QString& message) {
            failed = true;
            std::fprintf(stderr, "gnxctl: %s\n", message.toLocal8Bit().constData());
        },
        [this](int sent) { return job_.advance(sent); });
    if (failed)
        throw CliError{EXIT_DEVICE, QStringLiteral("the receiver refused some lines of %1").arg(fileName)};
}

void Gnxctl::scriptSave(const QString& fileName)
{
    QSaveFile file;
    fromFile([&] { Com::ScriptFile::open(file, fileName); });
    // Everything is read first: a read while recording would only add its request to the script.
    const GnxLink::SetupSoftware software = link_->getSetupSoftware();
    const GnxLink::SetupHardware hardware = link_->getSetupHardware();
    QList<GnxLink::PlatformInfo> platforms;
    for (int i = 0; i < link_->maxPlatformsNumber(); ++i) {
        GnxLink::PlatformInfo p = link_->getPlatformInfo(i);
        if (!p.id.isEmpty())
            platforms << p;
    }
    link_->startRecording();
    try {
        link_->setSetupSoftware(software);
        link_->setSetupHardware(hardware);
        for (const GnxLink::PlatformInfo& p : std::as_const(platforms))
            link_->setPlatformInfo(p, true);
    } catch (...) {
        link_->takeRecordedCommands();
        throw;
    }
    fromFile([&] { Com::ScriptFile::write(file, fileName, link_->takeRecordedCommands()); });
}

} // namespace OrviaGonioManager::Cli
