// The emulator over a real pseudo-terminal: answers, link, unplug and replug, faults, line rate.
#include "PtyPeer.h"
#include "SimWire.h"

#include "sim/PtySimulator.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

using namespace gnxsim;
using simwire::Line;

namespace {

Options gnx234(int platforms = 0, int flashRecords = 0)
{
    Options o;
    o.model = Model::Gnx234;
    o.platforms = platforms;
    o.flashRecords = flashRecords;
    return o;
}

Line ask(PtyPeer& peer, const QString& payload)
{
    if (!peer.send(simwire::frame(payload)))
        return {};
    return simwire::parse(peer.line());
}

} // namespace

class TestSimPty : public QObject
{
    Q_OBJECT

private slots:
    void answersOverThePty();
    void linkFollowsUnplugAndReplug();
    void linkNeverReplacesAFile();
    void destructorStopsAndRemovesTheLink();
    void droppedReply();
    void corruptedChecksum();
    void noiseBeforeALine();
    void splitWritesAndDelay();
    void stallKeepsReadingButNeverAnswers();
    void binaryFlashReadArrivesWhole();
    void liveAndUnsolicitedLines();
    void overrideOverThePty();
    void reportsNobodyReadsAreNotKept();
    void stateFileKeepsTheDeviceAcrossRuns();
    void throttleKeepsTheLineRate_data();
    void throttleKeepsTheLineRate();
};

void TestSimPty::answersOverThePty()
{
    PtySimulator sim(gnx234());
    QVERIFY2(sim.start(), qPrintable(sim.errorString()));
    QVERIFY(sim.slavePath().startsWith("/dev/pts/"));
    PtyPeer peer(sim.slavePath());
    QVERIFY(peer.isOpen());
    const Line test = ask(peer, "TEST");
    QVERIFY(test.valid);
    QCOMPARE(test.params.size(), 8);
    QCOMPARE(ask(peer, "SETUPSW,0,0,12,0,1,1,45,,,,,,2,1").params.mid(0, 7),
             (QStringList{"0", "0", "12", "0", "1", "1", "45"}));
    QCOMPARE(sim.softwareSetup().mid(12), (QStringList{"2", "1"}));
    QCOMPARE(sim.receivedLines(), (QStringList{"TEST", "SETUPSW,0,0,12,0,1,1,45,,,,,,2,1"}));
    sim.clearReceived();
    QVERIFY(sim.receivedLines().isEmpty());
}

void TestSimPty::linkFollowsUnplugAndReplug()
{
    QTemporaryDir dir;
    Options o = gnx234();
    o.linkPath = dir.filePath("gnx0");
    PtySimulator sim(o);
    QVERIFY(sim.start());
    const QString first = sim.slavePath();
    QCOMPARE(QFileInfo(o.linkPath).symLinkTarget(), first);
    {
        PtyPeer peer(o.linkPath);
        QVERIFY(ask(peer, "GSN").valid);
        sim.unplug();
        QVERIFY(!sim.isPlugged());
        QVERIFY(!QFileInfo::exists(o.linkPath) && !QFileInfo(o.linkPath).isSymLink());
        QVERIFY(peer.waitHangUp());
    }
    sim.replug();
    QVERIFY(sim.isPlugged());
    QCOMPARE(QFileInfo(o.linkPath).symLinkTarget(), sim.slavePath());
    PtyPeer again(o.linkPath);
    QCOMPARE(ask(again, "TEST").params.size(), 8);
    sim.stop();
    QVERIFY(!QFileInfo(o.linkPath).isSymLink());
}

void TestSimPty::linkNeverReplacesAFile()
{
    QTemporaryDir dir;
    QFile file(dir.filePath("keep.txt"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("precious");
    file.close();
    Options o = gnx234();
    o.linkPath = file.fileName();
    PtySimulator sim(o);
    QVERIFY(!sim.start());
    QVERIFY(sim.errorString().contains("is not a symbolic link"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("precious"));
    // A link left behind by an earlier run is simply replaced.
    const QString stale = dir.filePath("stale");
    QVERIFY(QFile::link("/dev/null", stale));
    o.linkPath = stale;
    PtySimulator again(o);
    QVERIFY(again.start());
    QCOMPARE(QFileInfo(stale).symLinkTarget(), again.slavePath());
}

void TestSimPty::destructorStopsAndRemovesTheLink()
{
    QTemporaryDir dir;
    Options o = gnx234();
    o.linkPath = dir.filePath("gnx1");
    o.liveIntervalMs = 10;
    {
        PtySimulator sim(o);
        QVERIFY(sim.start());
        QVERIFY(QFileInfo(o.linkPath).isSymLink());
    }
    QVERIFY(!QFileInfo(o.linkPath).isSymLink());
}

void TestSimPty::droppedReply()
{
    PtySimulator sim(gnx234());
    QVERIFY(sim.start());
    PtyPeer peer(sim.slavePath());
    Faults f;
    f.dropReply = 1.0;
    sim.setFaults(f);
    QVERIFY(peer.send(simwire::frame("TEST")));
    QTRY_COMPARE_WITH_TIMEOUT(sim.receivedLines(), QStringList{"TEST"}, 10000);
    sim.setFaults({});
    // The TEST answer never comes: the next line is the answer to GSN.
    QCOMPARE(ask(peer, "GSN").mnemonic, QString("GSN"));
}

void TestSimPty::corruptedChecksum()
{
    PtySimulator sim(gnx234());
    QVERIFY(sim.start());
    PtyPeer peer(sim.slavePath());
    Faults f;
    f.corruptChecksum = 1.0;
    sim.setFaults(f);
    const QByteArray raw = (peer.send(simwire::frame("GSN")), peer.line());
    QVERIFY(raw.startsWith("$GSN,"));
    QVERIFY(!simwire::parse(raw).valid);
    sim.setFaults({});
    QVERIFY(ask(peer, "GSN").valid);
}

void TestSimPty::noiseBeforeALine()
{
    PtySimulator sim(gnx234());
    QVERIFY(sim.start());
    PtyPeer peer(sim.slavePath());
    Faults f;
    f.noise = 1.0;
    sim.setFaults(f);
    QVERIFY(peer.send(simwire::frame("GSN")));
    const QByteArray garbage = peer.line();
    QVERIFY(!garbage.isEmpty());
    QVERIFY(!garbage.contains('$'));
    QCOMPARE(simwire::parse(peer.line()).mnemonic, QString("GSN"));
}

void TestSimPty::splitWritesAndDelay()
{
    PtySimulator sim(gnx234());
    QVERIFY(sim.start());
    PtyPeer peer(sim.slavePath());
    Faults f;
    f.splitBytes = 3;
    f.splitGapMs = 2;
    sim.setFaults(f);
    const Line lig = ask(peer, "LIG");
    QVERIFY(lig.valid);
    QCOMPARE(lig.params.size(), 16);
    QVERIFY(peer.reads() > 3); // it came in pieces

    f = {};
    f.delayMs = 300;
    sim.setFaults(f);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(ask(peer, "TEST").valid);
    QVERIFY(timer.elapsed() >= 290);
}

void TestSimPty::stallKeepsReadingButNeverAnswers()
{
    PtySimulator sim(gnx234());
    QVERIFY(sim.start());
    PtyPeer peer(sim.slavePath());
    sim.setStalled(true);
    QVERIFY(peer.send(simwire::frame("TEST")));
    QTRY_COMPARE_WITH_TIMEOUT(sim.receivedLines(), QStringList{"TEST"}, 10000);
    sim.setStalled(false);
    QCOMPARE(ask(peer, "GSN").mnemonic, QString("GSN"));
}

void TestSimPty::binaryFlashReadArrivesWhole()
{
    PtySimulator sim(gnx234(6, 200));
    QVERIFY(sim.start());
    Faults f;
    f.splitBytes = 700;
    f.splitGapMs = 0;
    sim.setFaults(f);
    PtyPeer peer(sim.slavePath());
    QVERIFY(peer.send(simwire::frame("RFP,0,16384")));
    QByteArray stream;
    QList<simwire::RfpFrame> frames;
    qint64 n = 0;
    QByteArray data;
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 20000) {
        peer.readSome(1000);
        stream += peer.buffer();
        peer.buffer().clear();
        frames.clear();
        data.clear();
        if (simwire::cutRfp(stream, &frames, &n, &data))
            break;
    }
    QCOMPARE(n, 129);
    QCOMPARE(data.left(sim.flashBytes().size()), sim.flashBytes());
}

void TestSimPty::liveAndUnsolicitedLines()
{
    PtySimulator sim(gnx234(4));
    QVERIFY(sim.start());
    PtyPeer peer(sim.slavePath());
    QVERIFY(sim.emitNpr(2, true));
    Line l = simwire::parse(peer.line());
    QCOMPARE(l.mnemonic, QString("NPRF"));
    QCOMPARE(l.params[0], QString("2"));
    QVERIFY(sim.emitNpr(-1, false));
    QCOMPARE(simwire::parse(peer.line()).mnemonic, QString("NPR"));
    QVERIFY(!sim.emitNpr(10, true)); // a free slot

    sim.sendRawLine("HELLO,1", false);
    const QByteArray bad = peer.line();
    QVERIFY(bad.startsWith("$HELLO,1*"));
    QVERIFY(!simwire::parse(bad).valid);
    sim.sendRawLine("HELLO,2");
    QVERIFY(simwire::parse(peer.line()).valid);
    sim.sendRawBytes("\x01\x02zz\r\n");
    QCOMPARE(peer.line(), QByteArray("\x01\x02zz\r\n"));

    sim.setLiveInterval(20);
    for (int i = 0; i < 5; ++i) {
        l = simwire::parse(peer.line());
        QVERIFY(l.valid);
        QVERIFY(l.mnemonic == "NPR" || l.mnemonic == "NPRF");
    }
    sim.setLiveInterval(0);
    QVERIFY(sim.flashRecordCount() >= 7);
}

void TestSimPty::overrideOverThePty()
{
    PtySimulator sim(gnx234());
    QVERIFY(sim.start());
    PtyPeer peer(sim.slavePath());
    sim.overrideNextReply("TEST", {"GNX234", "1", "2", "B", "APP", "x"});
    const Line l = ask(peer, "TEST");
    QCOMPARE(l.params.size(), 6);
    QCOMPARE(l.params[4], QString("APP"));
    QCOMPARE(ask(peer, "TEST").params.size(), 8);
}

void TestSimPty::reportsNobodyReadsAreNotKept()
{
    Options o = gnx234(4);
    o.liveIntervalMs = 1;
    PtySimulator sim(o);
    QVERIFY(sim.start());
    // About 170 kB of reports with nobody reading: more than the pty holds.
    QTRY_VERIFY_WITH_TIMEOUT(sim.flashRecordCount() >= 2000, 60000);
    sim.setLiveInterval(0);
    PtyPeer peer(sim.slavePath());             // opening flushes what the pty holds, as the program does
    QVERIFY(peer.send(simwire::frame("GSN"))); // answers are always written
    int stale = 0;
    for (QByteArray l = peer.line(); !l.startsWith("$GSN,"); l = peer.line()) {
        QVERIFY(!l.isEmpty());
        ++stale;
    }
    QVERIFY2(stale < 10, qPrintable(QString::number(stale)));
}

void TestSimPty::stateFileKeepsTheDeviceAcrossRuns()
{
    QTemporaryDir dir;
    Options o = gnx234(2, 5);
    o.statePath = dir.filePath("state.json");
    int kept = 0;
    {
        PtySimulator sim(o);
        QVERIFY(sim.start());
        PtyPeer peer(sim.slavePath());
        QVERIFY(ask(peer, "SETUPHW,1,1,42,1,1,E3,1").valid);
        QVERIFY(ask(peer, "IP,1,0" + QString(37, ',')).valid); // delete slot 1
        QVERIFY(ask(peer, "SUA").valid);
        kept = sim.flashRecordCount();
    }
    QVERIFY(QFileInfo::exists(o.statePath));
    Options next = gnx234(6, 100); // seeding is ignored when a state is loaded
    next.statePath = o.statePath;
    PtySimulator sim(next);
    QVERIFY2(sim.errorString().isEmpty(), qPrintable(sim.errorString()));
    QCOMPARE(sim.hardwareSetup(), (QStringList{"1", "1", "42", "1", "1", "E3", "1"}));
    QVERIFY(!sim.platformSlot(0).isEmpty());
    QVERIFY(sim.platformSlot(1).isEmpty());
    QVERIFY(sim.platformSlot(2).isEmpty());
    QCOMPARE(sim.flashRecordCount(), kept);
    QVERIFY(kept < 5); // slot 1's messages went with it
    QCOMPARE(sim.mode(), Mode::Bl);

    // A damaged state file is reported, and the emulator starts from its seed instead.
    QFile damaged(dir.filePath("bad.json"));
    QVERIFY(damaged.open(QIODevice::WriteOnly));
    damaged.write("{ not json");
    damaged.close();
    Options bad = gnx234(1);
    bad.statePath = damaged.fileName();
    PtySimulator fresh(bad);
    QVERIFY(!fresh.errorString().isEmpty());
    QVERIFY(!fresh.platformSlot(0).isEmpty());
}

void TestSimPty::throttleKeepsTheLineRate_data()
{
    QTest::addColumn<int>("baud");
    QTest::addColumn<int>("bytes");
    QTest::newRow("9600") << 9600 << 3840;      // 4 s
    QTest::newRow("115200") << 115200 << 46080; // 4 s
}

void TestSimPty::throttleKeepsTheLineRate()
{
    QFETCH(int, baud);
    QFETCH(int, bytes);
    Options o = gnx234();
    o.baud = baud;
    PtySimulator sim(o);
    QVERIFY(sim.start());
    PtyPeer peer(sim.slavePath());
    sim.sendRawBytes(QByteArray(bytes, 'x'));
    QVERIFY(peer.readSome(10000));
    QElapsedTimer timer;
    timer.start();
    const int first = int(peer.buffer().size());
    QCOMPARE(peer.bytes(bytes, 60000).size(), bytes);
    const double seconds = timer.nsecsElapsed() / 1e9;
    const double rate = (bytes - first) * 10.0 / seconds; // bits per second, 8N1
    qInfo("%d baud: %.0f measured (%.1f%%)", baud, rate, (rate / baud - 1) * 100);
    // Never faster; slower only by what a loaded machine can delay the last write.
    QVERIFY2(rate <= baud * 1.10 && rate >= baud * 0.90, qPrintable(QString::number(rate)));
}

QTEST_GUILESS_MAIN(TestSimPty)
#include "tst_simpty.moc"
