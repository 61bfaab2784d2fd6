#include "cli/Gnxctl.h"

#include "app/Settings.h"
#include "com/ComManager.h"
#include "mrl/utils/Exception.h"
#include "utils/PlatformNumber.h"
#include "utils/ReceiverSerial.h"

#include "BuildInfo.h"

#include <CLI/CLI.hpp>

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QRegularExpression>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sstream>

#include <sys/stat.h>

namespace OrviaGonioManager::Cli {

namespace {

const char* const kExitCodes =
    "Every command also takes -p PATH, --settings FILE, -v, -q and --json (\"gnxctl "
    "--help\").\n\n"
    "Exit codes:\n"
    "  0  done\n"
    "  1  the receiver refused or failed a request, a request timed out, or a\n"
    "     line of a script or an import did not take\n"
    "  2  usage, or a bad input file (the line and field are named)\n"
    "  3  no receiver, several receivers, or the port cannot be opened\n"
    "  4  the MQTT broker refused the station or the archiver, or the spool\n"
    "     cannot be written\n"
    "  5  the message store cannot be opened or written, or it failed its check\n";

// The groups of commands, as the help lists them.
const QHash<QString, QString>& groupDescriptions()
{
    static const QHash<QString, QString> texts{
        {QStringLiteral("setup"), QStringLiteral("The receiver's software and hardware setups.")},
        {QStringLiteral("time"), QStringLiteral("The receiver's clock.")},
        {QStringLiteral("flash"), QStringLiteral("The messages stored in the receiver's flash memory.")},
        {QStringLiteral("platforms"), QStringLiteral("The receiver's favourite platforms.")},
        {QStringLiteral("formats"), QStringLiteral("GPS formats files.")},
        {QStringLiteral("script"), QStringLiteral("Command scripts, as the window's terminal plays them.")},
        {QStringLiteral("firmware"), QStringLiteral("The receiver's firmware.")},
        {QStringLiteral("store"), QStringLiteral("The message store (SQLite or PostgreSQL).")},
    };
    return texts;
}

// Core messages (requests sent, progress lines) are for --verbose only.
bool g_verbose = false;

void messageHandler(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (g_verbose || type == QtFatalMsg)
        std::fprintf(stderr, "%s\n", text.toLocal8Bit().constData());
}

// Edits from one word to the other, for "did you mean".
int distance(const QString& a, const QString& b)
{
    std::vector<int> row(size_t(b.size()) + 1);
    for (size_t j = 0; j < row.size(); ++j)
        row[j] = int(j);
    for (qsizetype i = 1; i <= a.size(); ++i) {
        int diagonal = row[0];
        row[0] = int(i);
        for (qsizetype j = 1; j <= b.size(); ++j) {
            const int up = row[size_t(j)];
            row[size_t(j)] = std::min({up + 1, row[size_t(j) - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = up;
        }
    }
    return row.back();
}

QStringList subcommandNames(const CLI::App& app)
{
    QStringList names;
    for (const CLI::App* c : const_cast<CLI::App&>(app).get_subcommands([](CLI::App*) { return true; }))
        names << QString::fromStdString(c->get_name());
    return names;
}

// An option of this command or of its parents.
const CLI::Option* optionOf(const CLI::App* app, const std::string& name)
{
    for (; app; app = app->get_parent())
        if (const CLI::Option* o = app->get_option_no_throw(name))
            return o;
    return nullptr;
}

} // namespace

Gnxctl::Gnxctl()
    : app_(std::make_unique<CLI::App>("Configures and reads out a GNX receiver from the shell.", "gnxctl"))
{
    app_->fallthrough();
    // An option given twice takes its last value, as scripts that append to a base line expect.
    app_->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app_->footer(kExitCodes);
    app_->set_version_flag("--version", "gnxctl " OGM_VERSION);
    app_->add_option("-p,--port", "The receiver's port (a device path).")->type_name("PATH");
    app_->add_option("--settings", "Settings file (the window's seven keys); the defaults without it.")
        ->type_name("FILE");
    app_->add_flag("-v,--verbose", "Print the link's messages on standard error.");
    app_->add_flag("-q,--quiet", "No progress, countdown or warning on standard error; errors still.");
    app_->add_flag("--json", "Errors as one JSON object on standard error (and JSON output where a command "
                             "has it).");
    addCommands();
}

Gnxctl::~Gnxctl()
{
    if (link_)
        link_->closeConnection();
}

void Gnxctl::addCommands()
{
    addDeviceCommands();
    addFlashCommands();
    addFileCommands();
    addBearingsCommands();
    addStoreCommands();
    addHistoryCommands();
    addArchiveCommand();
}

CLI::App& Gnxctl::command(const QString& words, const QString& description, const Run& run)
{
    const QStringList names = words.split(QLatin1Char(' '));
    CLI::App* parent = app_.get();
    for (qsizetype i = 0; i + 1 < names.size(); ++i) {
        CLI::App*& group = groups_[names[i]];
        if (!group)
            group = parent->add_subcommand(names[i].toStdString(),
                                           groupDescriptions().value(names[i]).toStdString());
        parent = group;
    }
    CLI::App* c = parent->add_subcommand(names.last().toStdString(), description.toStdString());
    runs_.insert(c, run);
    return *c;
}

int Gnxctl::fail(const CliError& e) const
{
    if (json_) {
        QJsonObject o{{QStringLiteral("error"), e.message}, {QStringLiteral("code"), int(e.code)}};
        if (e.line > 0)
            o.insert(QStringLiteral("line"), e.line);
        if (!e.field.isEmpty())
            o.insert(QStringLiteral("field"), e.field);
        std::fprintf(stderr, "%s\n", QJsonDocument(o).toJson(QJsonDocument::Compact).constData());
    } else {
        std::fprintf(stderr, "gnxctl: %s\n", e.message.toLocal8Bit().constData());
    }
    return e.code;
}

CliError Gnxctl::usageError(const QStringList& arguments, const std::exception& e) const
{
    // The words walked as the parser walks them: options skipped with their values, each other word
    // a command of the level reached, until a command takes its own arguments.
    const CLI::App* level = app_.get();
    QString path = QStringLiteral("gnxctl");
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString word = arguments[i];
        if (word.startsWith(QLatin1Char('-')) && word != QLatin1String("-")) {
            const CLI::Option* o = optionOf(level, word.section(QLatin1Char('='), 0, 0).toStdString());
            if (o && o->get_type_size() > 0 && !word.contains(QLatin1Char('=')))
                ++i;
            continue;
        }
        if (runs_.contains(level))
            break;
        const QStringList names = subcommandNames(*level);
        if (names.contains(word)) {
            level = level->get_subcommand(word.toStdString());
            path += QLatin1Char(' ') + word;
            continue;
        }
        QString best;
        int bestDistance = 3; // further than two edits is no typo
        for (const QString& name : names)
            if (const int d = distance(word, name); d < bestDistance) {
                best = name;
                bestDistance = d;
            }
        QString text = QStringLiteral("unknown command \"%1\"").arg(word);
        text += best.isEmpty() ? QStringLiteral("; \"%1 --help\" lists them").arg(path)
                               : QStringLiteral("; did you mean \"%1 %2\"?").arg(path, best);
        return {EXIT_USAGE, text};
    }
    if (!runs_.contains(level))
        return {EXIT_USAGE, level == app_.get()
                                ? QStringLiteral("no command given; \"gnxctl --help\" lists them")
                                : QStringLiteral("\"%1\" needs a command: %2")
                                      .arg(path, subcommandNames(*level).join(QStringLiteral(", ")))};
    // The words were right: the parser's own message, in plainer words where it has a common one.
    QString text = QString::fromStdString(e.what());
    if (dynamic_cast<const CLI::ExtrasError*>(&e))
        text = QStringLiteral("unexpected argument \"%1\"; \"%2 --help\" tells what it takes")
                   .arg(text.section(QStringLiteral(": "), 1), path);
    return {EXIT_USAGE, text};
}

int Gnxctl::run(const QStringList& arguments)
{
    std::signal(SIGPIPE, SIG_IGN); // a reader gone shows as a failed write
    qInstallMessageHandler(messageHandler);
    json_ = arguments.contains(QStringLiteral("--json"));

    std::vector<std::string> words; // the parser takes them last first
    for (qsizetype i = arguments.size() - 1; i >= 1; --i)
        words.push_back(arguments[i].toStdString());
    try {
        app_->parse(words);
    } catch (const CLI::Success& e) { // --help, --version
        std::ostringstream text, errors;
        app_->exit(e, text, errors);
        out(QString::fromStdString(text.str()));
        return EXIT_DONE;
    } catch (const CLI::ParseError& e) {
        return fail(usageError(arguments, e));
    }
    const CLI::App* leaf = app_.get();
    while (!leaf->get_subcommands().empty())
        leaf = leaf->get_subcommands().front();
    if (!runs_.contains(leaf))
        return fail(usageError(arguments, std::runtime_error("no command")));

    const CliArgs args(*leaf);
    json_ = app_->get_option("--json")->count() > 0;
    g_verbose = args.isSet(QStringLiteral("verbose"));
    quiet_ = args.isSet(QStringLiteral("quiet"));
    try {
        try {
            Utils::Settings::useFile(args.value(QStringLiteral("settings")));
        } catch (const MRL::Utils::Exception& e) {
            throw CliError{EXIT_USAGE, e.message()};
        }
        runs_.value(leaf)(args);
    } catch (const CliError& e) {
        return fail(e);
    } catch (const MRL::Utils::Exception& e) {
        return fail({EXIT_DEVICE, e.message()});
    }
    return EXIT_DONE;
}

void Gnxctl::out(const QString& text)
{
    const QByteArray bytes = text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

QStringList Gnxctl::foundPorts()
{
    QStringList found;
    for (const auto& p : Com::ComManager::systemPorts())
        if (p.vendorId == Com::ComManager::kGnxVendorId && p.productId == Com::ComManager::kGnxProductId)
            found << p.systemLocation;
    return found + Com::ComManager::extraPortPaths();
}

bool Gnxctl::openOutput(Utils::OutputFile& file, const QString& path)
{
    const bool toStdout = path.isEmpty() || path == QLatin1String("-");
    if (!toStdout && !file.open(QIODevice::WriteOnly))
        throw CliError{EXIT_USAGE,
                       QStringLiteral("Unable to open output file %1: %2").arg(path, file.errorString())};
    return toStdout;
}

QString Gnxctl::platformOption(const CliArgs& a)
{
    if (!a.isSet(QStringLiteral("platform")))
        return {};
    const QString platform = Utils::PlatformNumber::shortest(a.value(QStringLiteral("platform")));
    static const QRegularExpression number(QStringLiteral("^[0-9A-F]{5}([0-9A-F]{2})?$"));
    if (!number.match(platform).hasMatch())
        throw CliError{
            EXIT_USAGE,
            QStringLiteral("--platform takes a platform number (5 or 7 hexadecimal digits), not \"%1\"")
                .arg(a.value(QStringLiteral("platform"))),
            0, QStringLiteral("platform")};
    return platform;
}

QFile& Gnxctl::standardOutput()
{
    static QFile file;
    if (!file.isOpen())
        file.open(stdout, QIODevice::WriteOnly, QFileDevice::DontCloseHandle);
    return file;
}

QString Gnxctl::serialOf(const Com::GnxLink::GnxDeviceInfo& d)
{
    return Utils::receiverSerial(d);
}

void Gnxctl::connectReceiver(const CliArgs& args)
{
    QString port = args.value(QStringLiteral("port"));
    const QString serial = args.value(QStringLiteral("serial"));
    if (port.isEmpty()) {
        const QStringList found = foundPorts();
        if (!serial.isEmpty()) {
            if (findReceiver(found, serial))
                return;
            throw CliError{EXIT_PORT, QStringLiteral("no receiver with serial number %1 found").arg(serial)};
        }
        if (found.isEmpty())
            throw CliError{
                EXIT_PORT,
                QStringLiteral(
                    "no receiver found: no USB serial port has the receiver's identifiers (%1:%2), and %3 "
                    "names no port. Plug the receiver in, or name its port with --port PATH, or list "
                    "ports in %3 (paths separated by \":\"). A receiver plugged in but not listed by "
                    "\"gnxctl ports\" needs the udev rule 70-orvia-gonio-manager.rules (installed by the "
                    "package in /lib/udev/rules.d) to be readable by your user.")
                    .arg(Com::ComManager::kGnxVendorId, 4, 16, QLatin1Char('0'))
                    .arg(Com::ComManager::kGnxProductId, 4, 16, QLatin1Char('0'))
                    .arg(QLatin1String(Com::ComManager::kExtraPortsVariable))};
        if (found.size() > 1)
            throw CliError{EXIT_PORT, QStringLiteral("several receivers found, pick one with --port:\n  ") +
                                          found.join(QStringLiteral("\n  "))};
        port = found.first();
    }
    openReceiver(port);
    if (!serial.isEmpty() && serialOf(device_) != serial)
        throw CliError{
            EXIT_PORT,
            QStringLiteral("the receiver on %1 is %2, not %3").arg(port, serialOf(device_), serial)};
}

bool Gnxctl::findReceiver(const QStringList& ports, const QString& serial)
{
    for (const QString& port : ports) {
        try {
            openReceiver(port);
            if (serial.isEmpty() || serialOf(device_) == serial)
                return true;
        } catch (const CliError&) {
            // Not there, or not answering: the next one.
        }
        link_.reset();
    }
    return false;
}

void Gnxctl::openReceiver(const QString& port)
{
    struct stat info = {};
    if (::stat(QFile::encodeName(port).constData(), &info) != 0)
        throw CliError{
            EXIT_PORT,
            QStringLiteral("no port %1: %2").arg(port, QString::fromLocal8Bit(std::strerror(errno)))};
    if (!S_ISCHR(info.st_mode))
        throw CliError{EXIT_PORT,
                       QStringLiteral("%1 is not a serial port (%2)")
                           .arg(port, S_ISDIR(info.st_mode)   ? QStringLiteral("a directory")
                                      : S_ISREG(info.st_mode) ? QStringLiteral("a regular file")
                                                              : QStringLiteral("not a character device"))};
    link_ = std::make_unique<Com::GnxLink>();
    lastLinkError_.clear();
    QObject::connect(link_.get(), &Com::GnxLink::sigLinkCompromised,
                     [this](const QString&, const QString& message) { lastLinkError_ = message; });
    link_->openConnection(port);
    try {
        device_ = link_->readDeviceInfo();
    } catch (const MRL::Utils::Exception& e) {
        QCoreApplication::processEvents(); // the link's own report of the failure
        if (lastLinkError_.contains(QLatin1String("cannot be open")))
            throw CliError{EXIT_PORT, openFailure(port, lastLinkError_)};
        failDevice(e);
    }
}

// The port's own error, in words a person understands.
QString Gnxctl::openFailure(const QString& port, const QString& linkMessage)
{
    const QString key =
        QRegularExpression(QStringLiteral("\\(error (\\w+)\\)")).match(linkMessage).captured(1);
    if (key == QLatin1String("PermissionError"))
        return QStringLiteral("%1 cannot be opened: permission denied. Add your user to the group that owns "
                              "it (see \"ls -l %1\"), or install the udev rule 70-orvia-gonio-manager.rules.")
            .arg(port);
    if (key == QLatin1String("OpenError"))
        return QStringLiteral("%1 cannot be opened: another program (the window, or another gnxctl) "
                              "has it open")
            .arg(port);
    if (key == QLatin1String("UnsupportedOperationError"))
        return QStringLiteral("%1 is not a serial port").arg(port);
    if (key == QLatin1String("DeviceNotFoundError"))
        return QStringLiteral("no port %1").arg(port);
    return linkMessage;
}

void Gnxctl::failDevice(const MRL::Utils::Exception& e)
{
    // The link's own report names the failure better than the request's echo of it.
    throw CliError{EXIT_DEVICE, lastLinkError_.isEmpty() ? e.message() : lastLinkError_};
}

} // namespace OrviaGonioManager::Cli
