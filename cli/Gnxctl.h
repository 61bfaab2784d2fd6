#pragma once

#include "cli/CliError.h"
#include "com/GnxLink.h"
#include "mrl/utils/Exception.h"
#include "utils/JobProgress.h"
#include "utils/RxTableModel.h"

#include <QCommandLineParser>
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
    Gnxctl();
    ~Gnxctl();

    int run(const QStringList& arguments);

private:
    struct Command
    {
        QString name; // "flash read"
        QString synopsis;
        QString description;
        std::function<void(QCommandLineParser&)> addOptions;
        std::function<void(QCommandLineParser&)> run;
    };

    void addCommands();
    void addDeviceCommands();
    void addFlashCommands();
    void addFileCommands();
    const Command* findCommand(const QStringList& words, int& used) const;
    QString overview() const;
    void addGlobalOptions(QCommandLineParser& parser) const;

    // The receiver named by --port, or the only one found; opened and identified.
    void connectReceiver(const QCommandLineParser& parser);
    void openReceiver(const QString& port);
    // Opens each port in turn until the receiver with this serial number answers.
    bool findReceiver(const QStringList& ports, const QString& serial);
    static QStringList foundPorts();
    static QString serialOf(const Com::GnxLink::GnxDeviceInfo& d);
    static QJsonObject identification(const Com::GnxLink::GnxDeviceInfo& d);
    [[noreturn]] void failDevice(const MRL::Utils::Exception& e);
    static QStringList positional(const QCommandLineParser& parser, int skip, int count,
                                  const QString& names);
    static void out(const QString& text);

    // The device commands.
    void ports();
    void info(bool json);
    void setupGet(bool json);
    void setupSet(const QString& fileName, const QJsonObject& wanted);
    void timeGet();
    void timeSync();
    void send(const QString& command);
    void mode(const QString& which);
    // The flash and reception commands.
    void flashRead(const QCommandLineParser& parser);
    void flashErase(bool confirmed);
    void monitor(const QCommandLineParser& parser);
    static void addStationOptions(QCommandLineParser& parser);
    void monitorMqtt(const QCommandLineParser& parser);
    void loadFormats(const QCommandLineParser& parser);
    std::map<int, QString> loadFavourites();
    // The commands on files shared with the window.
    void platformsExport(const QString& fileName);
    void platformsImport(const QString& fileName, const QStringList& lines);
    void formatsCheck(const QString& fileName);
    void scriptRun(const QString& fileName, const QStringList& lines);
    void scriptSave(const QString& fileName);

    QList<Command> commands_;
    std::unique_ptr<Com::GnxLink> link_;
    Com::GnxLink::GnxDeviceInfo device_;
    Utils::JobProgress job_;
    QString lastLinkError_;
    int skipWords_ = 0;
    Utils::RxTableModel rows_; // makes the rows, with the favourites its lookup knows
};

} // namespace OrviaGonioManager::Cli
