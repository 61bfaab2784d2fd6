// gnxsim: a GNX134/GNX234 receiver on a pseudo-terminal.
#include "sim/ControlConsole.h"
#include "sim/Firmware.h"
#include "sim/PositionFormat.h"
#include "sim/PtySimulator.h"
#include "sim/Scenario.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSaveFile>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <unistd.h>

using namespace gnxsim;

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char c = 1;
    [[maybe_unused]] const ssize_t n = ::write(signalPipe[1], &c, 1);
}

int fail(const QString& message)
{
    fprintf(stderr, "gnxsim: %s\n", qPrintable(message));
    return 2;
}

bool parseInt(const QCommandLineParser& p, const QString& name, int lo, int* out)
{
    if (!p.isSet(name))
        return true;
    bool ok = false;
    const int v = p.value(name).toInt(&ok);
    if (!ok || v < lo)
        return false;
    *out = v;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("gnxsim"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("GNX134/GNX234 receiver emulator on a pseudo-terminal. "
                       "Prints the slave path first; reads control commands on stdin."));
    parser.addHelpOption();
    parser.addOptions({
        {"model", "gnx134 or gnx234 (default gnx234).", "model", "gnx234"},
        {"mode", "app or bl (default app).", "mode", "app"},
        {"link", "Keep a symbolic link at PATH to the slave side.", "path"},
        {"platforms", "Favourite slots filled at start.", "n", "0"},
        {"flash-records", "Messages stored in flash memory at start.", "n", "0"},
        {"live-interval", "A live report every MS milliseconds (0 = none).", "ms", "0"},
        {"seed", "Seed of every random choice.", "n", "1"},
        {"baud", "Write no faster than 8N1 at this rate (0 = unthrottled).", "rate", "0"},
        {"state", "Keep setups, slots and flash in FILE across runs.", "file"},
        {"gnx134-quirk", "NPR lines carry the GNX134 short checksum."},
        {"fault",
         "A fault, NAME=VALUE: drop-reply, corrupt, noise (probabilities), split (bytes), delay (ms).",
         "name=value"},
        {"write-formats", "Write the GPS formats file that matches the seeded platforms and exit.", "file"},
        {"write-firmware", "Write a firmware file for the upload and exit.", "file"},
        {"version", "Firmware version text (with --write-firmware).", "text", "9.9.9"},
        {"firmware-records", "Data records in the firmware file (default 100).", "n", "100"},
        {"scenario",
         "A drive past platforms at known positions (JSON): directions are true bearings plus bias and "
         "noise.",
         "file"},
    });
    parser.process(app);

    Options o;
    const QString model = parser.value("model").toLower();
    if (model != "gnx134" && model != "gnx234")
        return fail("--model is gnx134 or gnx234");
    o.model = model == "gnx134" ? Model::Gnx134 : Model::Gnx234;

    if (parser.isSet("write-formats")) {
        QSaveFile file(parser.value("write-formats"));
        if (!file.open(QIODevice::WriteOnly))
            return fail(file.errorString());
        file.write(PositionFormat::builtinsVtlFile());
        return file.commit() ? 0 : fail(file.errorString());
    }
    if (parser.isSet("write-firmware")) {
        int records = 100;
        if (!parseInt(parser, "firmware-records", 0, &records))
            return fail("bad --firmware-records");
        QSaveFile file(parser.value("write-firmware"));
        if (!file.open(QIODevice::WriteOnly))
            return fail(file.errorString());
        file.write(Firmware::vanFile(o.model, parser.value("version"), records));
        if (!file.commit())
            return fail(file.errorString());
        return 0;
    }

    const QString mode = parser.value("mode").toLower();
    if (mode != "app" && mode != "bl")
        return fail("--mode is app or bl");
    o.mode = mode == "bl" ? Mode::Bl : Mode::App;
    int seed = 1;
    if (!parseInt(parser, "platforms", 0, &o.platforms) ||
        !parseInt(parser, "flash-records", 0, &o.flashRecords) ||
        !parseInt(parser, "live-interval", 0, &o.liveIntervalMs) || !parseInt(parser, "seed", 0, &seed) ||
        !parseInt(parser, "baud", 0, &o.baud))
        return fail("numeric options take a non-negative integer");
    o.seed = quint32(seed);
    o.linkPath = parser.value("link");
    o.statePath = parser.value("state");
    if (parser.isSet("scenario")) {
        QString error;
        o.scenario = Scenario::load(parser.value("scenario"), &error);
        if (!o.scenario)
            return fail("--scenario " + error);
    }

    PtySimulator sim(o);
    if (!sim.errorString().isEmpty())
        fprintf(stderr, "gnxsim: %s\n", qPrintable(sim.errorString()));
    ControlConsole console(sim);
    for (const QString& fault : parser.values("fault")) {
        const QString answer = console.execute("fault " + QString(fault).replace('=', ' '));
        if (answer != "ok")
            return fail(QStringLiteral("--fault %1: %2").arg(fault, answer));
    }
    if (parser.isSet("gnx134-quirk"))
        sim.setGnx134ChecksumQuirk(true);
    if (!sim.start())
        return fail("cannot open a pseudo-terminal: " + sim.errorString());
    printf("%s\n", qPrintable(sim.slavePath()));
    fflush(stdout);

    // SIGINT, SIGTERM and SIGHUP end the event loop, so that the link is removed on the way out.
    if (::pipe(signalPipe) == 0) {
        struct sigaction sa = {};
        sa.sa_handler = onSignal;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGINT, &sa, nullptr);
        sigaction(SIGTERM, &sa, nullptr);
        sigaction(SIGHUP, &sa, nullptr);
        auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
        QObject::connect(notifier, &QSocketNotifier::activated, &app, [] { QCoreApplication::quit(); });
    }
    signal(SIGPIPE, SIG_IGN);

    // Control input. End of input quits only when it comes from a terminal (Ctrl-D); from a pipe or
    // a file it just ends the control input, and the emulator runs until it is signalled.
    const bool interactive = isatty(STDIN_FILENO);
    // Started in the background of a shell ("gnxsim --link /tmp/gnx0 &"), the terminal is not ours
    // to read: reading it would stop the emulator. It then runs without control input.
    auto* input = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, &app);
    if (interactive && tcgetpgrp(STDIN_FILENO) != getpgrp())
        input->setEnabled(false);
    QByteArray pending;
    QObject::connect(input, &QSocketNotifier::activated, &app, [&, input] {
        char buffer[1024];
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n <= 0) {
            input->setEnabled(false);
            if (interactive)
                QCoreApplication::quit();
            return;
        }
        pending.append(buffer, int(n));
        int newline;
        while ((newline = pending.indexOf('\n')) >= 0) {
            const QString line = QString::fromUtf8(pending.left(newline));
            pending.remove(0, newline + 1);
            bool quit = false;
            const QString answer = console.execute(line, &quit);
            if (!answer.isEmpty()) {
                printf("%s\n", qPrintable(answer));
                fflush(stdout);
            }
            if (quit)
                QCoreApplication::quit();
        }
    });

    const int rc = app.exec();
    sim.stop();
    return rc;
}
