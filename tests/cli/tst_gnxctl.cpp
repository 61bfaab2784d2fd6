// gnxctl end to end: the program run as a user runs it, against the emulator over a
// pseudo-terminal. Outputs are parsed back, never compared as loose text.
#include "sim/Firmware.h"
#include "sim/PtySimulator.h"
#include "utils/RxTableModel.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <memory>

#include <sys/stat.h>

namespace {

struct Run
{
    int code = -1;
    QByteArray out;
    QByteArray err;
};

QList<QJsonObject> jsonLines(const QByteArray& text)
{
    QList<QJsonObject> objects;
    for (const QByteArray& line : text.split('\n'))
        if (!line.isEmpty())
            objects << QJsonDocument::fromJson(line).object();
    return objects;
}

int lineCount(const QByteArray& text)
{
    return int(text.count('\n'));
}

} // namespace

class TestGnxctl : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir_;
    std::unique_ptr<gnxsim::PtySimulator> sim_;
    QStringList slots_; // the favourites before the command

    QString port() const { return dir_.filePath("gnx"); }

    bool startSim(const QString& model, int liveMs = 0, bool bootloader = false, int records = 40,
                  int baud = 0)
    {
        gnxsim::Options o;
        o.model = model == "gnx134" ? gnxsim::Model::Gnx134 : gnxsim::Model::Gnx234;
        o.mode = bootloader ? gnxsim::Mode::Bl : gnxsim::Mode::App;
        o.platforms = 4;
        o.flashRecords = records;
        o.liveIntervalMs = liveMs;
        o.linkPath = port();
        o.seed = 7;
        o.baud = baud;
        sim_ = std::make_unique<gnxsim::PtySimulator>(o);
        return sim_->start();
    }

    // Runs gnxctl; onStderr sees each chunk of standard error as it comes.
    Run gnxctl(const QStringList& args, const QString& extraPorts = {},
               const std::function<void(const QByteArray&)>& onStderr = {}, const QByteArray& onOut = {},
               const std::function<void()>& whenOut = {})
    {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("GNX_EXTRA_PORTS", extraPorts);
        p.setProcessEnvironment(env);
        Run r;
        bool fired = false;
        connect(&p, &QProcess::readyReadStandardError, &p, [&] {
            const QByteArray chunk = p.readAllStandardError();
            r.err += chunk;
            if (onStderr)
                onStderr(chunk);
        });
        connect(&p, &QProcess::readyReadStandardOutput, &p, [&] {
            r.out += p.readAllStandardOutput();
            if (whenOut && !fired && r.out.count('\n') >= onOut.toInt()) {
                fired = true;
                whenOut();
            }
        });
        p.start(GNXCTL_PATH, args);
        if (!p.waitForFinished(60000))
            p.kill();
        r.out += p.readAllStandardOutput();
        r.err += p.readAllStandardError();
        r.code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
        return r;
    }

    QStringList withPort(const QString& args) const
    {
        return QStringList{"--port", port()} + args.split(' ', Qt::SkipEmptyParts);
    }

    // What the row's command must have done; empty when it did.
    QString verify(const QString& what, const QString& model, const Run& r, const QString& file)
    {
        const QString modelName = model.toUpper();
        const int records = sim_->flashRecordCount();
        if (what == "info") {
            if (!r.out.contains("model: " + modelName.toLatin1()) ||
                !r.out.contains("serialNumber: " +
                                sim_->serialNumber().split('-').value(0).rightJustified(4, '0').toLatin1()))
                return r.out;
        } else if (what == "info json" || what == "bootloader") {
            const QJsonObject o = QJsonDocument::fromJson(r.out).object();
            if (o["model"].toString() != modelName ||
                o["mode"].toString() != (what == "bootloader" ? "bl" : "app"))
                return r.out;
        } else if (what == "clock" || what == "synced" || what == "synced now") {
            // Shown to the minute the receiver keeps, never with invented seconds.
            const QDateTime shown = QDateTime::fromString(QString(r.out).trimmed(), "yyyy-MM-ddTHH:mmZ");
            const QDateTime now = QDateTime::currentDateTimeUtc();
            const QDateTime clock = sim_->clock();
            const QDateTime expected = what == "clock" ? clock : now;
            if (!shown.isValid() || shown.toString("HH:mm") != expected.toString("HH:mm"))
                return "shown " + r.out + " for " + expected.toString(Qt::ISODate);
            // Set at the minute's boundary, the receiver keeps the computer's time to the second;
            // --now leaves it behind by the seconds already past, and says so.
            if (what == "synced" && qAbs(clock.secsTo(now)) > 1)
                return QString("the receiver's clock is %1 s off").arg(clock.secsTo(now));
            if (what == "synced now" && clock.time().second() > 1 && !r.err.contains("s behind"))
                return r.err;
        } else if (what == "reply") {
            if (!r.out.startsWith(modelName.toLatin1() + ','))
                return r.out;
        } else if (what == "jsonl") {
            const auto objects = jsonLines(r.out);
            if (objects.size() != records ||
                !QDateTime::fromString(objects.value(0)["time"].toString(), Qt::ISODateWithMs).isValid())
                return QString("%1 objects for %2 records").arg(objects.size()).arg(records);
        } else if (what == "csv") {
            const QByteArray header =
                OrviaGonioManager::Utils::RxTableModel::headerTexts().join(',').toLatin1() + '\n';
            if (!r.out.startsWith(header) || lineCount(r.out) != records + 1)
                return QString("%1 lines for %2 records").arg(lineCount(r.out)).arg(records);
        } else if (what == "npr file") {
            QFile f(file);
            if (!f.open(QIODevice::ReadOnly) || lineCount(f.readAll()) != records || !r.out.isEmpty())
                return "the file holds no line a record";
        } else if (what == "erased") {
            if (records != 0)
                return QString("%1 records left").arg(records);
        } else if (what == "live") {
            if (jsonLines(r.out).size() != 3 || jsonLines(r.out).value(2)["origin"].toString() != "live")
                return r.out;
        } else if (what == "platforms round trip") { // the file brings back the same slots
            QStringList before;
            for (int i = 0; i < 8; ++i)
                before << sim_->platformSlot(i).join(',');
            const Run import = gnxctl(withPort("platforms import " + file));
            for (int i = 0; i < 8; ++i)
                if (sim_->platformSlot(i).join(',') != before[i])
                    return QString("slot %1 changed: %2").arg(i).arg(QString(import.err));
        } else if (what == "script round trip") { // played back, every line reaches the receiver
            QFile f(file);
            f.open(QIODevice::ReadOnly);
            const QList<QByteArray> lines = f.readAll().split('\n').mid(0, -1);
            sim_->clearReceived();
            const Run played = gnxctl(withPort("script run " + file));
            if (played.code != 0 || lines.isEmpty() || !lines[0].startsWith("$SETUPSW,") ||
                sim_->receivedLines().size() < lines.size() + 1) // the connection's own requests too
                return QString("%1 lines, %2 received: %3")
                    .arg(lines.size())
                    .arg(sim_->receivedLines().size())
                    .arg(QString(played.err));
        } else if (what == "setups" || what == "setups written") {
            const QJsonObject o =
                QJsonDocument::fromJson(what == "setups" ? r.out : gnxctl(withPort("setup get --json")).out)
                    .object();
            const QJsonObject sw = o["software"].toObject(), hw = o["hardware"].toObject();
            if (!sw.contains("contrast") || !hw.contains("cableLength") ||
                (what == "setups written" &&
                 (sw["contrast"].toInt() != 7 || hw["cableLength"].toInt() != 12)))
                return r.out;
        } else if (what == "upgraded") {
            if (sim_->applicationVersion() != "7.7.7")
                return sim_->applicationVersion();
        } else if (what == "to bootloader") {
            if (sim_->mode() != gnxsim::Mode::Bl)
                return "still in the application";
        } else if (what.startsWith("slots kept:")) { // a failed import leaves every slot as it was
            for (int i = 0; i < 8; ++i)
                if (sim_->platformSlot(i).join(',') != slots_.value(i))
                    return QString("slot %1 changed: %2").arg(i).arg(QString(r.err));
            if (!r.err.contains(what.mid(11).toLatin1()))
                return r.err;
            if (what.contains("restored") && !QFile::exists(file + ".bak"))
                return "no backup file";
        } else if (what == "quiet") {
            if (!r.err.isEmpty() || lineCount(r.out) != records + 1)
                return r.err;
        } else if (what.startsWith("out:")) {
            if (!r.out.contains(what.mid(4).toLatin1()))
                return r.out;
        } else if (!what.isEmpty() && !r.err.contains(what.toLatin1())) {
            return r.err;
        }
        return {};
    }

private slots:
    void initTestCase() { QVERIFY(dir_.isValid()); }
    void cleanup() { sim_.reset(); }

    void commands_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<QString>("args"); // %f: a file in the work directory
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("check");    // what verify() looks at, or a text standard error holds
        QTest::addColumn<QByteArray>("input"); // written to %f first, when not empty
        const auto both = [](const char* name, const char* args, int code, const char* what) {
            for (const char* model : {"gnx134", "gnx234"})
                QTest::addRow("%s %s", model, name)
                    << QString(model) << QString(args) << code << QString(what) << QByteArray();
        };
        both("info", "info", 0, "info");
        both("info json", "info --json", 0, "info json");
        both("time get", "time get", 0, "clock");
        QTest::newRow("gnx234 time sync") << "gnx234"
                                          << "time sync" << 0 << "synced" << QByteArray();
        QTest::newRow("gnx134 time sync now") << "gnx134"
                                              << "time sync --now" << 0 << "synced now" << QByteArray();
        both("send", "send TEST", 0, "reply");
        both("flash jsonl", "flash read --format jsonl", 0, "jsonl");
        both("flash csv", "flash read", 0, "csv");
        both("flash npr file", "flash read --format npr -o %f", 0, "npr file");
        both("flash erase", "flash erase --yes", 0, "erased");
        both("monitor", "monitor --count 3 --format jsonl", 0, "live");
        both("setup get", "setup get --json", 0, "setups");
        both("platforms", "platforms export %f", 0, "platforms round trip");
        both("script", "script save %f", 0, "script round trip");
        const auto row = [](const char* name, const char* model, const char* args, int code, const char* what,
                            const QByteArray& input = {}) {
            QTest::newRow(name) << QString(model) << QString(args) << code << QString(what) << input;
        };
        row("gnx234 setup set", "gnx234", "setup set %f", 0, "setups written",
            R"({"software": {"contrast": 7}, "hardware": {"cableLength": 12}})");
        row("bad setup file", "gnx234", "setup set %f", 2, "software.loudness: no such field",
            R"({"software": {"loudness": 7}})");
        row("gnx234 mode bl", "gnx234", "mode bl", 0, "to bootloader");
        row("gnx234 bootloader", "gnx234 bl", "info --json", 0, "bootloader");
        row("gnx234 bl firmware", "gnx234 bl", "firmware upload %f", 0, "upgraded",
            gnxsim::Firmware::vanFile(gnxsim::Model::Gnx234, "7.7.7", 20));
        // Bad input: usage and files.
        row("no command", "gnx234", "", 2, "gnxctl: no command given");
        row("mistyped command", "gnx234", "flush", 2,
            "unknown command \"flush\"; did you mean \"gnxctl flash\"?");
        row("mistyped subcommand", "gnx234", "time sinc", 2, "did you mean \"gnxctl time sync\"?");
        row("group alone", "gnx234", "platforms", 2, "\"gnxctl platforms\" needs a command: export, import");
        row("version", "gnx234", "--version", 0, "out:gnxctl 1.");
        row("quiet", "gnx234", "-q flash read", 0, "quiet");
        row("command help", "gnx234", "flash read --help", 0, "out:Usage: gnxctl flash read [OPTIONS]");
        row("json error", "gnx234", "--json flash erase", 2,
            R"({"code":2,"error":"flash erase needs --yes"})");
        row("time json", "gnx234", "time get --json", 0, R"(out:"resolution":"minute")");
        row("send refused", "gnx234", "send BOGUS,1", 1,
            "The receiver refused \"BOGUS,1\": it answered $ACK,0*7F");
        row("send wrong checksum", "gnx234", "send GSN*00", 1, "Wrong checksum provided (should be 70)");
        row("script line refused", "gnx234", "script run %f", 1, "line 2: Wrong checksum provided",
            "# a\n$GSN*00\n$GSN*70\n");
        row("script keep going", "gnx234", "script run --keep-going %f", 1, "2 of 3 lines of",
            "$GSN*00\n$GSN*70\n$BOGUS*11\n");
        row("erase unconfirmed", "gnx234", "flash erase", 2, "gnxctl: flash erase needs --yes");
        row("bad format", "gnx234", "flash read --format xml", 2, "unknown format \"xml\"");
        row("stray argument", "gnx234", "info now", 2, "unexpected argument \"now\"");
        row("bad mode", "gnx234", "mode fast", 2, "mode must be app or bl");
        row("no settings file", "gnx234", "--settings %f info", 2, "Unable to read settings file");
        row("no formats file", "gnx234", "flash read --formats %f", 2, "%f");
        // A bad line of an import: named, and nothing written.
        const QByteArray header = "#,Orvia ID,Label,GPS Format Name,Repetition period,Orvia Band,Modulation,"
                                  "Frequency Mode,Narrow Mode Frequency\n";
        row("import columns", "gnx234", "platforms import %f", 2,
            "slots kept:line 1: 2 columns where a GNX234 line has 8", "12345,Buoy\n");
        row("import identifier", "gnx234", "--json platforms import %f", 2,
            R"(slots kept:"field":"Orvia ID","line":3)",
            header + "12345,A,,120,0,0,0,0\nZZZZZ,B,,120,0,0,0,0\n");
        row("import label", "gnx234", "platforms import %f", 2, "slots kept:line 2, \"Label\"",
            header + QString("12345,Ω,,120,0,0,0,0\n").toUtf8());
        row("import format", "gnx134", "platforms import %f", 2, "slots kept:\"GPS Format Name\"",
            "12345,A,NO-SUCH-FORMAT,120,4\n");
        row("import refused", "gnx234 refuse", "platforms import --backup %f.bak %f", 1,
            "slots kept:restored", header + "12345,A,,120,0,0,0,0\n23456,B,,120,0,0,0,0\n");
        row("no script file", "gnx234", "script run %f", 2, "Unable to GNX script file");
        row("bad formats file", "gnx234", "formats check %f", 2, ":2: not a GPS format line", "1\nbad#\n");
        row("stalled", "gnx234 stalled", "--settings %f info", 1, "Uart link timeout",
            "[General]\nprintUartDebugInfo=0\nprintAtCmdDebugInfo=1\ngnxCommandTimeoutMs=300\n"
            "keepAliveTimeoutMs=500\nkeepAlivePeriodMs=0\nkeepChecksumErrorOnNprGnx134=0\nnprMessagesFormat="
            "0\n");
    }

    void commands()
    {
        QFETCH(QString, model);
        QFETCH(QString, args);
        QFETCH(int, code);
        QFETCH(QString, check);
        QFETCH(QByteArray, input);
        const QStringList how = model.split(' ');
        QVERIFY(startSim(how[0], args.startsWith("monitor") ? 30 : 0, how.contains("bl")));
        const QString file = dir_.filePath(QString(QTest::currentDataTag()).replace(' ', '_'));
        QFile::remove(file);
        if (!input.isEmpty()) {
            QFile f(file);
            QVERIFY(f.open(QIODevice::WriteOnly) && f.write(input) == input.size());
        }
        if (how.contains("stalled"))
            sim_->setStalled(true);
        if (how.contains("refuse"))
            sim_->setRefusedSlot(1);
        slots_.clear();
        for (int i = 0; i < 8; ++i)
            slots_ << sim_->platformSlot(i).join(',');
        QString line = args;
        const Run r =
            gnxctl(line.startsWith("--version") ? QStringList{args} : withPort(line.replace("%f", file)));
        QVERIFY2(r.code == code, qPrintable(QString("exit %1: %2").arg(r.code).arg(QString(r.err))));
        const QString failed = verify(check == "%f" ? file : check, how[0], r, file);
        QVERIFY2(failed.isEmpty(), qPrintable(failed));
    }

    void outputs_data()
    {
        QTest::addColumn<QString>("command"); // %o: the target
        QTest::addColumn<QString>("kind");
        QTest::newRow("flash read onto a FIFO") << "flash read --format npr -o %o"
                                                << "fifo";
        QTest::newRow("flash read onto -") << "flash read --format npr -o %o"
                                           << "dash";
        QTest::newRow("platforms export onto a link") << "platforms export %o"
                                                      << "link";
        QTest::newRow("script save onto a 0600 file") << "script save %o"
                                                      << "private";
    }

    // What is not a regular file is written in place, never replaced; a link stays a link; a
    // regular file keeps its mode.
    void outputs()
    {
        QFETCH(QString, command);
        QFETCH(QString, kind);
        QVERIFY(startSim("gnx234"));
        const QString target = dir_.filePath("target"), real = dir_.filePath("real");
        QFile::remove(target);
        QFile::remove(real);
        const auto put = [](const QString& path) {
            QFile f(path);
            return f.open(QIODevice::WriteOnly) && f.write("old") == 3;
        };
        QProcess reader;
        if (kind == "fifo") {
            QCOMPARE(::mkfifo(QFile::encodeName(target).constData(), 0644), 0);
            reader.start("cat", {target});
            QVERIFY(reader.waitForStarted());
        } else if (kind == "link") {
            QVERIFY(put(real) && QFile::link(real, target));
        } else if (kind == "private") {
            QVERIFY(put(target) && QFile::setPermissions(target, QFile::ReadOwner | QFile::WriteOwner));
        }
        const Run r = gnxctl(withPort(command.replace("%o", kind == "dash" ? "-" : target)));
        QVERIFY2(r.code == 0, r.err);
        QByteArray written = r.out;
        struct stat st = {};
        QCOMPARE(kind == "dash" ? 0 : ::lstat(QFile::encodeName(target).constData(), &st), 0);
        if (kind == "fifo") {
            QVERIFY(reader.waitForFinished(30000));
            written = reader.readAllStandardOutput();
            QVERIFY(S_ISFIFO(st.st_mode));
        } else if (kind == "link") {
            QVERIFY(S_ISLNK(st.st_mode));
            QFile f(real);
            QVERIFY(f.open(QIODevice::ReadOnly));
            written = f.readAll();
        } else if (kind == "private") {
            QCOMPARE(st.st_mode & 0777, 0600u);
            QFile f(target);
            QVERIFY(f.open(QIODevice::ReadOnly));
            written = f.readAll();
        }
        QVERIFY2(written.size() > 100 && !written.startsWith("old"), written);
        if (command.startsWith("flash"))
            QCOMPARE(lineCount(written), sim_->flashRecordCount());
    }

    // A receiver that talks while nobody listens (its answers paced as on the wire, the pty
    // full): each run still connects at once.
    void talkingReceiver()
    {
        QVERIFY(startSim("gnx234", 10, false, 0, 115200));
        for (int i = 0; i < 16; ++i) {
            const Run r = gnxctl(withPort(i % 2 ? "platforms export" : "info"));
            QVERIFY2(r.code == 0, qPrintable(QString("run %1: %2").arg(i).arg(QString(r.err))));
        }
    }

    // Without --port: the only receiver found, or a list when there are several.
    void discovery()
    {
        QVERIFY(startSim("gnx234"));
        QCOMPARE(gnxctl({"info"}, port()).code, 0);
        const Run several = gnxctl({"info"}, port() + ":" + dir_.path());
        QCOMPARE(several.code, 3);
        QVERIFY2(several.err.contains(port().toLatin1()) && several.err.contains("several receivers"),
                 several.err);
        const Run none = gnxctl({"--port", dir_.filePath("absent"), "info"});
        QCOMPARE(none.code, 3);
        const Run notSerial = gnxctl({"--port", GNXCTL_PATH, "info"});
        QCOMPARE(notSerial.code, 3);
        QVERIFY2(notSerial.err.contains("is not a serial port (a regular file)"), notSerial.err);
        const Run nothing = gnxctl({"info"});
        QCOMPARE(nothing.code, 3);
        QVERIFY2(nothing.err.contains("no receiver found") && nothing.err.contains("GNX_EXTRA_PORTS"),
                 nothing.err);
        const Run listed = gnxctl({"ports"}, port());
        QCOMPARE(listed.out, (port() + "\t-\tGNX_EXTRA_PORTS\n").toLatin1());
    }

    void unplugged_data()
    {
        QTest::addColumn<QString>("command");
        QTest::newRow("flash read") << "flash read --format jsonl";
        QTest::newRow("monitor") << "monitor --format jsonl";
    }

    // The receiver pulled out part-way: exit code 1, what was already taken written out.
    void unplugged()
    {
        QFETCH(QString, command);
        const bool monitor = command.startsWith("monitor");
        QVERIFY(startSim("gnx234", monitor ? 20 : 0, false, monitor ? 0 : 2000));
        Run r;
        if (monitor) {
            r = gnxctl(withPort(command), {}, {}, "2", [&] { sim_->unplug(); });
        } else {
            r = gnxctl(withPort(command), {}, [&](const QByteArray& chunk) {
                if (chunk.contains("Flash read: ") && !chunk.contains(": 0 of") && sim_->isPlugged())
                    sim_->unplug();
            });
        }
        QCOMPARE(r.code, 1);
        const auto objects = jsonLines(r.out);
        QVERIFY2(objects.size() >= (monitor ? 2 : 1), r.err);
        QVERIFY(!objects.last()["time"].toString().isEmpty()); // whole lines only
    }

    void brokenPipe_data()
    {
        QTest::addColumn<QString>("command");
        QTest::newRow("monitor") << "monitor --format npr";
        QTest::newRow("flash read") << "flash read --format csv";
    }

    // A reader that stops early, as `monitor | head` does: a quiet end with code 0.
    void brokenPipe()
    {
        QFETCH(QString, command);
        QVERIFY(startSim("gnx234", command.startsWith("monitor") ? 20 : 0, false, 2000));
        QProcess shell;
        shell.start("bash", {"-c", "set -o pipefail; \"$0\" --port \"$1\" " + command + " | head -n 2",
                             GNXCTL_PATH, port()});
        QVERIFY(shell.waitForFinished(60000));
        QCOMPARE(lineCount(shell.readAllStandardOutput()), 2);
        const QByteArray err = shell.readAllStandardError();
        QVERIFY2(!err.contains("gnxctl:"), err); // progress lines only
        QCOMPARE(shell.exitCode(), 0);
    }

    // The command line links the core alone: no Gui, no Widgets.
    void noGuiLibraries()
    {
        QProcess ldd;
        ldd.start("ldd", {GNXCTL_PATH});
        QVERIFY(ldd.waitForFinished(30000));
        const QByteArray libraries = ldd.readAllStandardOutput();
        QVERIFY(libraries.contains("libQt6Core"));
        QVERIFY2(!libraries.contains("libQt6Gui") && !libraries.contains("libQt6Widgets"), libraries);
    }
};

QTEST_GUILESS_MAIN(TestGnxctl)
#include "tst_gnxctl.moc"
