#pragma once

#include "cli/CliArgs.h"
#include "cli/CliError.h"
#include "com/GnxLink.h"
#include "mrl/utils/Exception.h"
#include "store/MessageStore.h"
#include "utils/JobProgress.h"
#include "utils/OutputFile.h"
#include "utils/RxTableModel.h"

#include <QFile>
#include <QHash>
#include <QJsonObject>
#include <QStringList>

#include <functional>
#include <map>
#include <memory>

namespace OrviaGonioManager::Cli {

// The command line: parses "gnxctl [global options] COMMAND [SUBCOMMAND] [options] [args]", finds
// and opens the receiver, runs the command on the core library, and turns failures into exit codes.
class Gnxctl
{
public:
    using Run = std::function<void(const CliArgs&)>;

    Gnxctl();
    ~Gnxctl();

    int run(const QStringList& arguments);
    // Where gnxctl keeps what it makes for the user: $XDG_STATE_HOME/gnxctl.
    static QString stateDirectory();
    // The broker's user and password: from --mqtt-auth FILE, else the environment.
    static void mqttCredentials(const CliArgs& args, QString* user, QString* password);

private:
    void addCommands();
    void addDeviceCommands();
    void addFlashCommands();
    void addFileCommands();
    void addBearingsCommands();
    void addStoreCommands();
    void addHistoryCommands();
    void addArchiveCommand();
    // A command under its words ("flash read"), made with its groups; run once parsed.
    CLI::App& command(const QString& words, const QString& description, const Run& run);
    // A parse failure in words a person understands, with a suggestion for a mistyped command.
    CliError usageError(const QStringList& arguments, const std::exception& e) const;
    int fail(const CliError& e) const;

    // The receiver named by --port, or the only one found; opened and identified.
    void connectReceiver(const CliArgs& args);
    void openReceiver(const QString& port);
    // Opens each port in turn until the receiver with this serial number (any, without one) answers.
    bool findReceiver(const QStringList& ports, const QString& serial);
    static QStringList foundPorts();
    static QString serialOf(const Com::GnxLink::GnxDeviceInfo& d);
    // Standard output as a device, for the writers of messages.
    static QFile& standardOutput();
    // Opens -o's file, opened first so that a wrong path fails before any long work; true when
    // the output is standard output instead. CliError EXIT_USAGE when it cannot be opened.
    static bool openOutput(Utils::OutputFile& file, const QString& path);
    // --platform by number ("002A1B3" is "2A1B3"); empty when not given; CliError EXIT_USAGE when
    // it is no platform number.
    static QString platformOption(const CliArgs& args);
    static QJsonObject identification(const Com::GnxLink::GnxDeviceInfo& d);
    static QString openFailure(const QString& port, const QString& linkMessage);
    [[noreturn]] void failDevice(const MRL::Utils::Exception& e);
    static void out(const QString& text);
    static void writeOutput(const QString& fileName, const QString& what, const QByteArray& bytes);

    // The device commands.
    void ports();
    void info(bool json);
    void setupGet(bool json);
    void setupSet(const QString& fileName, const QJsonObject& wanted);
    void timeGet(bool json);
    void timeSync(bool now);
    void waitUntil(const QDateTime& at);
    void send(const QString& command);
    void mode(const QString& which);
    // The flash and reception commands.
    void flashRead(const CliArgs& args);
    void flashErase(bool confirmed);
    void monitor(const CliArgs& args);
    static void addStationOptions(CLI::App& command);
    void monitorMqtt(const CliArgs& args);
    // The GPS formats of --formats; without it, when asked, the file the window uses, if found.
    void loadFormats(const CliArgs& args, bool orFound = false);
    std::map<int, QString> loadFavourites();
    // The commands on files shared with the window.
    void platformsExport(const QString& fileName);
    void platformsImport(const CliArgs& args);
    void formatsCheck(const QString& fileName);
    void scriptRun(const QString& fileName, const QStringList& lines, bool keepGoing);
    void scriptSave(const QString& fileName);
    // Fixes from the bearings of messages read back from a file.
    void bearings(const CliArgs& args);
    void storeCheck(const CliArgs& args);
    // The kept messages, chosen as the History window chooses them.
    void history(const CliArgs& args);
    // Keeps what the stations publish in a store, until stopped.
    void archive(const CliArgs& args);
    // The store at url, or CliError EXIT_STORE saying why.
    static std::unique_ptr<Store::MessageStore>
    openStore(const QString& url,
              Store::MessageStore::Access access = Store::MessageStore::Access::ReadWrite);
    // As openStore(), for the messages of the connected receiver, which the store notes.
    std::unique_ptr<Store::MessageStore> openReceiverStore(const QString& url);
    // The favourites of a platforms file into rows_; returns the generation its columns are of.
    Com::GnxLink::GnxVersion_t loadPlatformsFile(const QString& fileName);

    std::unique_ptr<CLI::App> app_;
    QHash<QString, CLI::App*> groups_;
    QHash<const CLI::App*, Run> runs_;
    bool json_ = false;
    bool quiet_ = false;
    std::unique_ptr<Com::GnxLink> link_;
    Com::GnxLink::GnxDeviceInfo device_;
    Utils::JobProgress job_;
    QString lastLinkError_;
    Utils::RxTableModel rows_; // makes the rows, with the favourites its lookup knows
};

} // namespace OrviaGonioManager::Cli
