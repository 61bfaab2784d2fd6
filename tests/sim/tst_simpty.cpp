// The emulator over a real pseudo-terminal: the gnxsim executable, and the line rate in process.
#include "PtyPeer.h"
#include "SimWire.h"

#include "sim/PtySimulator.h"

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

    void formatsFileIsTheShippedOne()
    {
        QTemporaryDir dir;
        QCOMPARE(QProcess::execute(GNXSIM_EXE, {"--write-formats", dir.filePath("format.vtl")}), 0);
        QCOMPARE(contents(dir.filePath("format.vtl")), contents(GNXSIM_DATA_DIR "/format.vtl"));
    }
};

QTEST_GUILESS_MAIN(TestSimPty)
#include "tst_simpty.moc"
