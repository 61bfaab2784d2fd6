// The gnxsim executable: printed path, link, control input, signals, generated files.
#include "PtyPeer.h"
#include "SimWire.h"

#include "sim/Firmware.h"
#include "sim/PositionFormat.h"

#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

using namespace gnxsim;

namespace {

struct Emulator
{
    explicit Emulator(const QStringList& args)
    {
        process.start(QStringLiteral(GNXSIM_EXE), args);
        if (process.waitForStarted(10000) && waitLine())
            path = QString::fromLocal8Bit(lastLine);
    }
    ~Emulator()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(10000);
        }
    }
    bool waitLine(int timeoutMs = 10000)
    {
        QElapsedTimer timer;
        timer.start();
        while (!process.canReadLine()) {
            const qint64 left = timeoutMs - timer.elapsed();
            if (left <= 0 || !process.waitForReadyRead(int(left)))
                return false;
        }
        lastLine = process.readLine().trimmed();
        return true;
    }
    // Sends a control command and returns its answer line.
    QByteArray control(const QByteArray& command)
    {
        process.write(command + '\n');
        return waitLine() ? lastLine : QByteArray();
    }
    QProcess process;
    QString path;
    QByteArray lastLine;
};

simwire::Line ask(PtyPeer& peer, const QString& payload)
{
    peer.send(simwire::frame(payload));
    return simwire::parse(peer.line());
}

} // namespace

class TestGnxsimExe : public QObject
{
    Q_OBJECT

private slots:
    void printsThePathAndAnswersTest();
    void controlInput();
    void endOfInputFromAPipeKeepsItRunning();
    void writesFirmwareAndFormatsFiles();
    void badOptionsAreRefused_data();
    void badOptionsAreRefused();
};

void TestGnxsimExe::printsThePathAndAnswersTest()
{
    QTemporaryDir dir;
    const QString link = dir.filePath("gnx0");
    Emulator sim(
        {"--model", "gnx234", "--link", link, "--platforms", "6", "--flash-records", "20", "--seed", "3"});
    QVERIFY2(sim.path.startsWith("/dev/pts/"), sim.path.toLocal8Bit().constData());
    QCOMPARE(QFileInfo(link).symLinkTarget(), sim.path);
    PtyPeer peer(sim.path);
    const simwire::Line test = ask(peer, "TEST");
    QVERIFY(test.valid);
    QCOMPARE(test.params.size(), 8);
    QCOMPARE(test.params[4], QString("APP"));
    QCOMPARE(ask(peer, "IP,5" + QString(38, ',')).params.size(), 39);
    sim.process.terminate(); // SIGTERM
    QVERIFY(sim.process.waitForFinished(10000));
    QCOMPARE(sim.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(sim.process.exitCode(), 0);
    QVERIFY(!QFileInfo(link).isSymLink());
}

void TestGnxsimExe::controlInput()
{
    QTemporaryDir dir;
    const QString link = dir.filePath("gnx0");
    Emulator sim({"--model", "gnx134", "--link", link, "--platforms", "2"});
    QVERIFY(!sim.path.isEmpty());
    {
        PtyPeer peer(link);
        QCOMPARE(sim.control("nprf 1"), QByteArray("ok"));
        const simwire::Line nprf = simwire::parse(peer.line());
        QCOMPARE(nprf.mnemonic, QString("NPRF"));
        QCOMPARE(nprf.params.size(), 19);
        QCOMPARE(nprf.params[0], QString("1"));
        QVERIFY(sim.control("nprf 7").startsWith("error: "));
        QCOMPARE(sim.control("quirk on"), QByteArray("ok"));
        QCOMPARE(sim.control("npr"), QByteArray("ok"));
        const QByteArray npr = peer.line();
        QVERIFY(npr.startsWith("$NPR,16,"));
        QVERIFY(!simwire::parse(npr).valid); // the short checksum
        QCOMPARE(sim.control("mode bl"), QByteArray("ok"));
        QCOMPARE(ask(peer, "TEST").params, (QStringList{"GNX134", "BL"}));
        QCOMPARE(sim.control("mode app"), QByteArray("ok"));
        QCOMPARE(sim.control("fault drop-reply 1"), QByteArray("ok"));
        peer.send(simwire::frame("GSN"));
        QTRY_VERIFY_WITH_TIMEOUT(sim.control("received").endsWith(" GSN"), 10000);
        QCOMPARE(sim.control("fault off"), QByteArray("ok"));
        QCOMPARE(ask(peer, "TEST").mnemonic, QString("TEST")); // the GSN answer was dropped
        QVERIFY(sim.control("fault sparks 1").startsWith("error: "));
        QVERIFY(sim.control("bogus").startsWith("error: unknown command"));
        QVERIFY(sim.control("status").startsWith("model gnx134, mode app, slave /dev/pts/"));
        QCOMPARE(sim.control("unplug"), QByteArray("ok"));
        QVERIFY(peer.waitHangUp());
        QVERIFY(!QFileInfo(link).isSymLink());
    }
    const QByteArray replug = sim.control("replug");
    QVERIFY(replug.startsWith("slave /dev/pts/"));
    QCOMPARE(QFileInfo(link).symLinkTarget(), QString::fromLocal8Bit(replug.mid(6)));
    PtyPeer again(link);
    QCOMPARE(ask(again, "GSN").params.size(), 1);
    QCOMPARE(sim.control("quit"), QByteArray("ok"));
    QVERIFY(sim.process.waitForFinished(10000));
    QCOMPARE(sim.process.exitCode(), 0);
    QVERIFY(!QFileInfo(link).isSymLink());
}

void TestGnxsimExe::endOfInputFromAPipeKeepsItRunning()
{
    QTemporaryDir dir;
    const QString link = dir.filePath("gnx0");
    Emulator sim({"--link", link});
    QVERIFY(!sim.path.isEmpty());
    QCOMPARE(sim.control("live 0"), QByteArray("ok"));
    sim.process.closeWriteChannel();
    PtyPeer peer(link);
    QVERIFY(ask(peer, "TEST").valid); // still there after the end of its input
    QCOMPARE(sim.process.state(), QProcess::Running);
    ::kill(pid_t(sim.process.processId()), SIGINT);
    QVERIFY(sim.process.waitForFinished(10000));
    QCOMPARE(sim.process.exitCode(), 0);
    QVERIFY(!QFileInfo(link).isSymLink());
}

void TestGnxsimExe::writesFirmwareAndFormatsFiles()
{
    QTemporaryDir dir;
    const QString van = dir.filePath("fw.van");
    QCOMPARE(QProcess::execute(GNXSIM_EXE,
                               {"--write-firmware", van, "--version", "5.0 beta", "--model", "gnx134"}),
             0);
    QFile file(van);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray content = file.readAll();
    QVERIFY(content.startsWith("VANTOR GONIO_V1 FIRMWARE VERSION : 5.0 beta\r"));
    QCOMPARE(content, Firmware::vanFile(Model::Gnx134, "5.0 beta", 100));

    const QString vtl = dir.filePath("format.vtl");
    QCOMPARE(QProcess::execute(GNXSIM_EXE, {"--write-formats", vtl}), 0);
    QFile formats(vtl);
    QVERIFY(formats.open(QIODevice::ReadOnly));
    QCOMPARE(formats.readAll(), PositionFormat::builtinsVtlFile());
}

void TestGnxsimExe::badOptionsAreRefused_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::newRow("model") << QStringList{"--model", "gnx999"};
    QTest::newRow("mode") << QStringList{"--mode", "debug"};
    QTest::newRow("platforms") << QStringList{"--platforms", "-3"};
    QTest::newRow("baud") << QStringList{"--baud", "fast"};
    QTest::newRow("fault") << QStringList{"--fault", "drop-reply=2"};
}

void TestGnxsimExe::badOptionsAreRefused()
{
    QFETCH(QStringList, args);
    QProcess p;
    p.start(GNXSIM_EXE, args);
    QVERIFY(p.waitForFinished(10000));
    QCOMPARE(p.exitCode(), 2);
    QVERIFY(p.readAllStandardError().startsWith("gnxsim: "));
    QVERIFY(p.readAllStandardOutput().isEmpty());
}

QTEST_GUILESS_MAIN(TestGnxsimExe)
#include "tst_gnxsim_exe.moc"
