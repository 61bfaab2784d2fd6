#include "cli/Gnxctl.h"

#include "app/Settings.h"
#include "com/ComManager.h"
#include "mrl/utils/Exception.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QTextStream>

#include <csignal>
#include <cstdio>

namespace OrviaGonioManager::Cli {

namespace {

const char* const kExitCodes = "\nExit codes:\n"
                               "  0  done\n"
                               "  1  the device answered with an error, or a request timed out\n"
                               "  2  usage, or a bad input file\n"
                               "  3  no receiver, several receivers, or the port cannot be opened\n"
                               "  4  the MQTT broker refused the station, or the spool cannot be written\n";

// Core messages (requests sent, progress lines) are for --verbose only.
bool g_verbose = false;

void messageHandler(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (g_verbose || type == QtFatalMsg)
        std::fprintf(stderr, "%s\n", text.toLocal8Bit().constData());
}

int fail(const CliError& e)
{
    std::fprintf(stderr, "gnxctl: %s\n", e.message.toLocal8Bit().constData());
    return e.code;
}

} // namespace

Gnxctl::Gnxctl()
{
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
}

void Gnxctl::addGlobalOptions(QCommandLineParser& parser) const
{
    parser.addHelpOption();
    parser.addOption({QStringLiteral("port"), QStringLiteral("The receiver's port (a device path)."),
                      QStringLiteral("PATH")});
    parser.addOption({QStringLiteral("settings"),
                      QStringLiteral("Settings file (the window's seven keys); the defaults without it."),
                      QStringLiteral("FILE")});
    parser.addOption(
        {QStringLiteral("verbose"), QStringLiteral("Print the link's messages on standard error.")});
}

const Gnxctl::Command* Gnxctl::findCommand(const QStringList& words, int& used) const
{
    for (const Command& c : commands_) {
        const QStringList name = c.name.split(QLatin1Char(' '));
        if (words.mid(0, name.size()) == name) {
            used = int(name.size());
            return &c;
        }
    }
    return nullptr;
}

QString Gnxctl::overview() const
{
    QString text = QStringLiteral("Usage: gnxctl [--port PATH] [--settings FILE] COMMAND [options]\n\n"
                                  "Configures and reads out a GNX receiver from the shell.\n\nCommands:\n");
    for (const Command& c : commands_)
        text += QStringLiteral("  %1\n      %2\n").arg(c.synopsis, c.description);
    text += QStringLiteral("\n\"gnxctl COMMAND --help\" tells more of each.\n") + QLatin1String(kExitCodes);
    return text;
}

int Gnxctl::run(const QStringList& arguments)
{
    std::signal(SIGPIPE, SIG_IGN); // a reader gone shows as a failed write
    qInstallMessageHandler(messageHandler);

    QCommandLineParser first;
    addGlobalOptions(first);
    first.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    if (!first.parse(arguments))
        return fail({EXIT_USAGE, first.errorText()});
    const QStringList words = first.positionalArguments();
    if (words.isEmpty()) {
        if (first.isSet(QStringLiteral("help"))) {
            out(overview());
            return EXIT_DONE;
        }
        return fail({EXIT_USAGE, QStringLiteral("no command given; \"gnxctl --help\" lists them")});
    }
    int used = 0;
    const Command* command = findCommand(words, used);
    if (!command)
        return fail({EXIT_USAGE, QStringLiteral("unknown command \"%1\"; \"gnxctl --help\" lists them")
                                     .arg(words.mid(0, 2).join(QLatin1Char(' ')))});

    QCommandLineParser parser;
    parser.setApplicationDescription(command->description + QLatin1Char('\n') + QLatin1String(kExitCodes));
    addGlobalOptions(parser);
    command->addOptions(parser);
    parser.addPositionalArgument(command->name, QString(), command->synopsis.mid(7));
    if (!parser.parse(arguments))
        return fail({EXIT_USAGE, parser.errorText()});
    if (parser.isSet(QStringLiteral("help"))) {
        out(parser.helpText());
        return EXIT_DONE;
    }
    g_verbose = parser.isSet(QStringLiteral("verbose"));
    skipWords_ = used;
    try {
        try {
            Utils::Settings::useFile(parser.value(QStringLiteral("settings")));
        } catch (const MRL::Utils::Exception& e) {
            throw CliError{EXIT_USAGE, e.message()};
        }
        command->run(parser);
    } catch (const CliError& e) {
        return fail(e);
    } catch (const MRL::Utils::Exception& e) {
        return fail({EXIT_DEVICE, e.message()});
    }
    return EXIT_DONE;
}

QStringList Gnxctl::positional(const QCommandLineParser& parser, int skip, int count, const QString& names)
{
    const QStringList args = parser.positionalArguments().mid(skip);
    if (args.size() != count)
        throw CliError{EXIT_USAGE, count == 0
                                       ? QStringLiteral("unexpected argument \"%1\"").arg(args.value(0))
                                       : QStringLiteral("expected %1").arg(names)};
    return args;
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

QString Gnxctl::serialOf(const Com::GnxLink::GnxDeviceInfo& d)
{
    return QStringLiteral("%1-%2").arg(d.serialNumberPart1, d.serialNumberPart2);
}

void Gnxctl::connectReceiver(const QCommandLineParser& parser)
{
    QString port = parser.value(QStringLiteral("port"));
    const QString serial = parser.optionNames().contains(QStringLiteral("serial"))
                               ? parser.value(QStringLiteral("serial"))
                               : QString();
    if (port.isEmpty()) {
        const QStringList found = foundPorts();
        if (!serial.isEmpty()) {
            if (findReceiver(found, serial))
                return;
            throw CliError{EXIT_PORT, QStringLiteral("no receiver with serial number %1 found").arg(serial)};
        }
        if (found.size() != 1)
            throw CliError{EXIT_PORT, found.isEmpty() ? QStringLiteral("no receiver found")
                                                      : QStringLiteral("several receivers found, pick one "
                                                                       "with --port:\n  ") +
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
            if (serialOf(device_) == serial)
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
    if (!QFileInfo::exists(port))
        throw CliError{EXIT_PORT, QStringLiteral("no port %1").arg(port)};
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
            throw CliError{EXIT_PORT, lastLinkError_};
        failDevice(e);
    }
}

void Gnxctl::failDevice(const MRL::Utils::Exception& e)
{
    // The link's own report names the failure better than the request's echo of it.
    throw CliError{EXIT_DEVICE, lastLinkError_.isEmpty() ? e.message() : lastLinkError_};
}

} // namespace OrviaGonioManager::Cli
