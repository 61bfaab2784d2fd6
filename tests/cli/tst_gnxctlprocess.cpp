// gnxctl as a process: what it writes onto FIFOs, links and private files, a receiver that talks
// while nobody listens, finding the receiver, a receiver pulled out or a reader gone part-way, and
// the libraries it links.
#include "GnxctlFixture.h"

#include <QTest>

#include <sys/stat.h>

class TestGnxctlProcess : public QObject, public GnxctlFixture
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(dir_.isValid()); }
    void cleanup() { sim_.reset(); }

    void outputs_data()
    {
        QTest::addColumn<QString>("command"); // %o: the target
        QTest::addColumn<QString>("kind");
        QTest::newRow("flash read onto a FIFO")
            << QString("flash read --format npr -o %o") << QString("fifo");
        QTest::newRow("flash read onto -") << QString("flash read --format npr -o %o") << QString("dash");
        QTest::newRow("platforms export onto a link") << QString("platforms export %o") << QString("link");
        QTest::newRow("script save onto a 0600 file") << QString("script save %o") << QString("private");
        QTest::newRow("history onto a FIFO") << QString("history --db %d -o %o") << QString("fifo");
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
        QProcess reader;
        if (kind == "fifo") {
            QCOMPARE(::mkfifo(QFile::encodeName(target).constData(), 0644), 0);
            reader.start("cat", {target});
            QVERIFY(reader.waitForStarted());
        } else if (kind == "link") {
            QVERIFY(writeFile(real, "old") && QFile::link(real, target));
        } else if (kind == "private") {
            QVERIFY(writeFile(target, "old") &&
                    QFile::setPermissions(target, QFile::ReadOwner | QFile::WriteOwner));
        }
        if (command.contains("%d")) // a store to read from, filled by a flash read
            QCOMPARE(run(withPort("flash read -o /dev/null --db " + dir_.filePath("outputs.db"))).code, 0);
        const Run r = run(withPort(
            command.replace("%o", kind == "dash" ? "-" : target).replace("%d", dir_.filePath("outputs.db"))));
        QVERIFY2(r.code == 0, r.err);
        struct stat st = {};
        QCOMPARE(kind == "dash" ? 0 : ::lstat(QFile::encodeName(target).constData(), &st), 0);
        if (kind == "fifo")
            QVERIFY(S_ISFIFO(st.st_mode) && reader.waitForFinished(30000));
        else if (kind != "dash")
            QVERIFY2(kind == "link" ? S_ISLNK(st.st_mode) : (st.st_mode & 0777) == 0600, qPrintable(kind));
        const QByteArray written = kind == "fifo"   ? reader.readAllStandardOutput()
                                   : kind == "dash" ? r.out
                                                    : readFile(kind == "link" ? real : target);
        QVERIFY2(written.size() > 100 && !written.startsWith("old"), written);
        if (command.startsWith("flash"))
            QCOMPARE(lineCount(written), sim_->flashRecordCount());
    }

    // A receiver that talks while nobody listens (its answers paced as on the wire, the pty
    // full): each run still connects at once.
    void talkingReceiver()
    {
        QVERIFY(startSim("gnx234", 10, false, 0, 115200));
        for (int i = 0; i < 16; ++i)
            QVERIFY2(run(withPort(i % 2 ? "platforms export" : "info")).code == 0,
                     qPrintable(QString::number(i)));
    }

    // Without --port: the only receiver found, or a list when there are several.
    void discovery()
    {
        QVERIFY(startSim("gnx234"));
        QCOMPARE(run({"info"}, port()).code, 0);
        QCOMPARE(run({"ports"}, port()).out, (port() + "\t-\tGNX_EXTRA_PORTS\n").toLatin1());
        // Arguments, GNX_EXTRA_PORTS, and what standard error says.
        const QList<std::tuple<QStringList, QString, QStringList>> failures{
            {{"info"}, port() + ":" + dir_.path(), {port(), "several receivers"}},
            {{"--port", dir_.filePath("absent"), "info"}, {}, {}},
            {{"--port", GNXCTL_PATH, "info"}, {}, {"is not a serial port (a regular file)"}},
            {{"info"}, {}, {"no receiver found", "GNX_EXTRA_PORTS"}},
        };
        for (const auto& [args, extraPorts, said] : failures) {
            const Run r = run(args, extraPorts);
            QCOMPARE(r.code, 3);
            for (const QString& text : said)
                QVERIFY2(r.err.contains(text.toLatin1()), r.err);
        }
    }

    void interrupted_data()
    {
        QTest::addColumn<QString>("command");
        QTest::newRow("unplugged in flash read") << QString("flash read --format jsonl");
        QTest::newRow("unplugged in monitor") << QString("monitor --format jsonl");
        QTest::newRow("broken pipe in monitor") << QString("monitor --format npr");
        QTest::newRow("broken pipe in flash read") << QString("flash read --format csv");
    }

    // The receiver pulled out part-way: exit code 1, what was already taken written out. A reader
    // that stops early, as `monitor | head` does: a quiet end with code 0.
    void interrupted()
    {
        QFETCH(QString, command);
        const bool monitor = command.startsWith("monitor");
        const bool unplug = QByteArray(QTest::currentDataTag()).startsWith("unplugged");
        QVERIFY(startSim("gnx234", monitor ? 20 : 0, false, monitor && unplug ? 0 : 2000));
        if (!unplug) {
            const Run shell = run({"-c", "set -o pipefail; \"$0\" --port \"$1\" " + command + " | head -n 2",
                                   GNXCTL_PATH, port()},
                                  {}, "bash");
            QCOMPARE(lineCount(shell.out), 2);
            QVERIFY2(!shell.err.contains("gnxctl:"), shell.err); // progress lines only
            QCOMPARE(shell.code, 0);
            return;
        }
        const Run r =
            run(withPort(command), {}, GNXCTL_PATH, [&](const QByteArray& chunk, const QByteArray& out) {
                if (sim_->isPlugged() &&
                    (monitor ? lineCount(out) >= 2
                             : chunk.contains("Flash read: ") && !chunk.contains(": 0 of")))
                    sim_->unplug();
            });
        QCOMPARE(r.code, 1);
        const auto objects = jsonLines(r.out);
        QVERIFY2(objects.size() >= (monitor ? 2 : 1), r.err);
        QVERIFY(!objects.last()["time"].toString().isEmpty()); // whole lines only
    }

    // The command line links the core alone: no Gui, no Widgets.
    void noGuiLibraries()
    {
        const QByteArray libraries = run({GNXCTL_PATH}, {}, "ldd").out;
        QVERIFY2(libraries.contains("libQt6Core") && !libraries.contains("libQt6Gui") &&
                     !libraries.contains("libQt6Widgets"),
                 libraries);
    }
};

QTEST_GUILESS_MAIN(TestGnxctlProcess)
#include "tst_gnxctlprocess.moc"
