// The emulator over a real pseudo-terminal: the gnxsim executable, and the line rate in process.
#include "PtyPeer.h"
#include "SimWire.h"

#include "sim/PtySimulator.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace gnxsim;

namespace {

QStringList ask(PtyPeer& peer, const QString& payload)
{
    return peer.send(simwire::frame(payload)) ? simwire::parse(peer.line()) : QStringList();
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestSimPty : public QObject
{
    Q_OBJECT

private slots:
    // It prints the slave path first, keeps the link on it across an unplug and a replug, answers
    // over the pty, keeps running when its piped input ends, and takes the link away on SIGTERM.
    void executable()
    {
        QTemporaryDir dir;
        const QString link = dir.filePath("gnx0");
        QProcess sim;
        sim.start(GNXSIM_EXE, {"--model", "gnx134", "--link", link});
        const auto control = [&](const QByteArray& command) { // its answer line
            sim.write(command);
            const QDeadlineTimer deadline(10000);
            while (!sim.canReadLine() && sim.waitForReadyRead(int(deadline.remainingTime()))) {
            }
            return sim.readLine().trimmed();
        };
        const QString path = QString::fromLocal8Bit(control({}));
        QVERIFY2(path.startsWith("/dev/pts/"), qPrintable(path));
        QCOMPARE(QFileInfo(link).symLinkTarget(), path);
        {
            PtyPeer peer(path);
            QCOMPARE(ask(peer, "TEST"), (QStringList{"TEST", "GNX134", "APP"}));
            QCOMPARE(control("unplug\n"), QByteArray("ok"));
            QTRY_VERIFY_WITH_TIMEOUT(!peer.readSome(100), 10000); // hung up
            QVERIFY(!QFileInfo(link).isSymLink());
        }
        const QByteArray replug = control("replug\n");
        QVERIFY2(replug.startsWith("slave /dev/pts/"), replug.constData());
        QCOMPARE(QFileInfo(link).symLinkTarget(), QString::fromLocal8Bit(replug.mid(6)));
        PtyPeer again(link);
        sim.closeWriteChannel();
        QCOMPARE(ask(again, "GSN").size(), 2);
        QCOMPARE(sim.state(), QProcess::Running);
        sim.terminate();
        QVERIFY(sim.waitForFinished(10000));
        QCOMPARE(sim.exitStatus(), QProcess::NormalExit);
        QCOMPARE(sim.exitCode(), 0);
        QVERIFY(!QFileInfo(link).isSymLink());
    }

    // A flash record holds longitudes within about ±139.81°: beyond, the emulator stores the limit as
    // the receiver does, and says so once per platform.
    void flashLongitudeWarning_data()
    {
        QTest::addColumn<double>("longitude");
        QTest::addColumn<int>("warnings");
        QTest::newRow("at 139.8") << 139.8 << 0;
        QTest::newRow("at 170") << 170.0 << 2;
        QTest::newRow("at -175") << -175.0 << 2;
    }
    void flashLongitudeWarning()
    {
        QFETCH(double, longitude);
        QFETCH(int, warnings);
        QTemporaryDir dir;
        QFile scenario(dir.filePath("east.json"));
        QVERIFY(scenario.open(QIODevice::WriteOnly));
        scenario.write(QString(R"({"receiver": {"path": [[60.0, %1], [60.01, %1]], "speed": 10},
            "platforms": [{"id": "2A1B3", "position": [60.05, %1]}, {"id": "1A3CA97", "position": [59.95, %1]}]})")
                           .arg(longitude)
                           .toUtf8());
        scenario.close();
        QProcess sim;
        sim.start(GNXSIM_EXE, {"--scenario", scenario.fileName(), "--flash-records", "20"});
        QVERIFY(sim.waitForReadyRead(10000)); // the slave path: the flash memory is filled by then
        sim.terminate();
        QVERIFY(sim.waitForFinished(10000));
        const QStringList lines =
            QString::fromLocal8Bit(sim.readAllStandardError()).split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), warnings);
        for (const QString& line : lines)
            QVERIFY2(
                line.startsWith(
                    QString("gnxsim: warning: the receiver at longitude %1").arg(longitude, 0, 'f', 5)) &&
                    line.contains("cannot be stored in a flash record (it holds -139.81 to 139.81 degrees)"),
                qPrintable(line));
    }

    void formatsFileIsTheShippedOne()
    {
        QTemporaryDir dir;
        QCOMPARE(QProcess::execute(GNXSIM_EXE, {"--write-formats", dir.filePath("format.vtl")}), 0);
        QCOMPARE(contents(dir.filePath("format.vtl")), contents(GNXSIM_DATA_DIR "/format.vtl"));
    }
};

QTEST_GUILESS_MAIN(TestSimPty)
#include "tst_simpty.moc"
