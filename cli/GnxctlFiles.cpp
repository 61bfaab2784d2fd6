// gnxctl: the commands that read or write the files shared with the window: platforms, scripts,
// GPS formats and firmware.
#include "cli/Gnxctl.h"

#include "cli/ProgressPrinter.h"
#include "com/PlatformCodec.h"
#include "com/PlatformsCheck.h"
#include "com/PlatformsFile.h"
#include "com/PlatformsImport.h"
#include "com/ScriptFile.h"
#include "mrl/utils/Exception.h"
#include "utils/FirmwareFile.h"
#include "utils/GpsFormat.h"
#include "utils/OutputFile.h"

#include <CLI/CLI.hpp>

#include <QDateTime>
#include <QDir>
#include <QFile>
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
    const auto file = [](CLI::App& c, const char* what, bool required = true) {
        CLI::Option* o = c.add_option("file")->description(what)->type_name("FILE");
        if (required)
            o->required();
    };
    file(command(QStringLiteral("platforms export"),
                 QStringLiteral("Writes the favourite platforms in the window's CSV format."),
                 [this](const CliArgs& a) {
                     connectReceiver(a);
                     platformsExport(a.value(QStringLiteral("file")));
                 }),
         "The CSV file (\"-\" or none: standard output; a device or a FIFO is written in place).", false);
    CLI::App& import = command(
        QStringLiteral("platforms import"),
        QStringLiteral("Replaces every favourite platform with those of the file, as one transaction: the "
                       "whole file is checked first, the slots are kept (and saved to a backup file) before "
                       "the first write, every slot is read back, and on any failure the kept slots are "
                       "written back."),
        [this](const CliArgs& a) { platformsImport(a); });
    file(import, "The CSV file, as \"platforms export\" writes it.");
    import
        .add_option("--formats", "GPS formats file, besides the formats the receiver holds (without it: the "
                                 "window's file, ~/.local/share/OrviaGonioManager/Data/format.vtl, else the "
                                 "installed one).")
        ->type_name("FILE");
    import
        .add_option("--backup", "Where the slots are saved before the first write (default: in the user's "
                                "state directory, $XDG_STATE_HOME/gnxctl).")
        ->type_name("FILE");
    import.add_flag("--dry-run", "Check the file and print what would change; nothing is written.");
    file(command(QStringLiteral("formats check"),
                 QStringLiteral("Validates a GPS formats file and reports each bad line."),
                 [this](const CliArgs& a) { formatsCheck(a.value(QStringLiteral("file"))); }),
         "The GPS formats file.");
    CLI::App& run = command(
        QStringLiteral("script run"),
        QStringLiteral("Plays a command script back to the receiver; stops at the first line that fails."),
        [this](const CliArgs& a) {
            const QString name = a.value(QStringLiteral("file"));
            const QStringList lines = fromFile([&] { return Com::ScriptFile::readLines(name); });
            connectReceiver(a);
            scriptRun(name, lines, a.isSet(QStringLiteral("keep-going")));
        });
    file(run, "The script: one frame a line; lines without a leading \"$\" are comments.");
    run.add_flag("--keep-going", "Play every line, as the window does, and fail at the end if any line did.");
    file(command(QStringLiteral("script save"),
                 QStringLiteral("Saves the receiver's setups and favourite platforms as a script."),
                 [this](const CliArgs& a) {
                     connectReceiver(a);
                     scriptSave(a.value(QStringLiteral("file")));
                 }),
         "The script (\"-\" or none: standard output).", false);
    file(command(QStringLiteral("firmware upload"),
                 QStringLiteral("Uploads a firmware (the receiver in its bootloader: \"gnxctl mode bl\")."),
                 [this](const CliArgs& a) {
                     const QString name = a.value(QStringLiteral("file"));
                     QFile van(name);
                     if (!van.open(QIODevice::ReadOnly))
                         throw CliError{EXIT_USAGE,
                                        QStringLiteral("Unable to open GNX firmware file %1").arg(name)};
                     const QByteArray content = van.readAll();
                     connectReceiver(a);
                     const auto firmware = fromFile(
                         [&] { return Utils::FirmwareFile::parse(content, name, int(link_->version())); });
                     ProgressPrinter progress(job_, quiet_ ? nullptr : stderr);
                     const Utils::JobScope scope(job_, QStringLiteral("Upload"), firmware.records.size(),
                                                 QStringLiteral("records"));
                     QObject::connect(link_.get(), &GnxLink::sigFirmwareProgress, &job_,
                                      [this](int sent) { job_.advance(sent); });
                     link_->uploadFirmware(firmware.records);
                 }),
         "The firmware file (.van).");
}

// A file the user named, or standard output ("-" or none); devices and FIFOs are written in
// place, a regular file completely or not at all.
void Gnxctl::writeOutput(const QString& fileName, const QString& what, const QByteArray& bytes)
{
    Utils::OutputFile file(fileName.isEmpty() ? QStringLiteral("-") : fileName);
    if (!file.open(QIODevice::WriteOnly))
        throw CliError{
            EXIT_USAGE,
            QStringLiteral("Unable to open %1 %2: %3").arg(what, file.fileName(), file.errorString())};
    if (file.device()->write(bytes) != bytes.size() || !file.commit())
        throw CliError{
            EXIT_USAGE,
            QStringLiteral("Unable to write %1 %2: %3").arg(what, file.fileName(), file.errorString())};
}

void Gnxctl::platformsExport(const QString& fileName)
{
    // Read whole before anything is written: a failed read leaves no half file, even on a FIFO.
    QString text = Com::PlatformsFile::header(link_->version()) + QLatin1Char('\n');
    for (int i = 0; i < link_->maxPlatformsNumber(); ++i) {
        const GnxLink::PlatformInfo p = link_->getPlatformInfo(i);
        if (!p.id.isEmpty())
            text += Com::PlatformCodec::csvFields(p, p.gpsFormat ? p.gpsFormat->name : QString(),
                                                  link_->version())
                        .join(QLatin1Char(',')) +
                    QLatin1Char('\n');
    }
    writeOutput(fileName, QStringLiteral("platforms file"), text.toUtf8());
}

void Gnxctl::platformsImport(const CliArgs& a)
{
    const QString fileName = a.value(QStringLiteral("file"));
    loadFormats(a, true);
    connectReceiver(a);
    ProgressPrinter progress(job_, quiet_ ? nullptr : stderr);
    Com::PlatformsImport import(*link_, &job_);
    const bool dryRun = a.isSet(QStringLiteral("dry-run"));
    QString backup = a.value(QStringLiteral("backup"));
    if (backup.isEmpty() && !dryRun) {
        const QString dir = stateDirectory() + QStringLiteral("/backups");
        if (!QDir().mkpath(dir))
            throw CliError{EXIT_USAGE, QStringLiteral("Unable to make the backup directory %1").arg(dir)};
        backup = QStringLiteral("%1/platforms-%2-%3.csv")
                     .arg(dir, serialOf(device_),
                          QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMddTHHmmss")));
    }
    QList<Com::PlatformsImport::Change> changes;
    try {
        changes = dryRun ? import.dryRun(fileName) : import.run(fileName, backup);
    } catch (const Com::PlatformsCheck::Error& e) {
        throw CliError{EXIT_USAGE, e.message(), e.line(), e.field()};
    } catch (const Com::PlatformsImport::Error& e) {
        throw CliError{EXIT_DEVICE, e.message(), e.line()};
    }
    if (dryRun) {
        QString text;
        for (const auto& c : std::as_const(changes))
            text += QStringLiteral("slot %1: %2 -> %3\n")
                        .arg(c.slot)
                        .arg(c.before.isEmpty() ? QStringLiteral("(free)") : c.before,
                             c.after.isEmpty() ? QStringLiteral("(free)") : c.after);
        out(text.isEmpty() ? QStringLiteral("nothing would change\n") : text);
    } else if (!quiet_) {
        std::fprintf(stderr, "gnxctl: %lld slot(s) changed; the slots as they were are in %s\n",
                     static_cast<long long>(changes.size()), QFile::encodeName(backup).constData());
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

void Gnxctl::scriptRun(const QString& fileName, const QStringList& lines, bool keepGoing)
{
    ProgressPrinter progress(job_, quiet_ ? nullptr : stderr);
    const Utils::JobScope scope(job_, QStringLiteral("Script"), Com::ScriptFile::commandCount(lines),
                                QStringLiteral("lines"));
    int sent = 0;
    int failed = 0;
    for (int i = 0; i < lines.size(); ++i) {
        if (!lines[i].startsWith(QLatin1Char('$')))
            continue; // a comment
        try {
            link_->exchangeManualCommand(lines[i]);
        } catch (const MRL::Utils::Exception& e) {
            const CliError error{EXIT_DEVICE,
                                 QStringLiteral("%1, line %2: %3").arg(fileName).arg(i + 1).arg(e.message()),
                                 i + 1};
            // Without a link every further line would fail the same way.
            if (!keepGoing || !link_->isUsable())
                throw error;
            ++failed;
            fail(error);
        }
        job_.advance(++sent);
    }
    if (failed > 0)
        throw CliError{EXIT_DEVICE,
                       QStringLiteral("%1 of %2 lines of %3 failed").arg(failed).arg(sent).arg(fileName)};
}

void Gnxctl::scriptSave(const QString& fileName)
{
    Utils::OutputFile file;
    fromFile([&] { Com::ScriptFile::open(file, fileName.isEmpty() ? QStringLiteral("-") : fileName); });
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
    fromFile([&] {
        Com::ScriptFile::write(file, fileName.isEmpty() ? QStringLiteral("-") : fileName,
                               link_->takeRecordedCommands());
    });
}

} // namespace OrviaGonioManager::Cli
