// gnxsim figures: in-process command rate, record encoding, flash answers, pty round trips, and
// the line rate kept by --baud.
#include "PtyPeer.h"
#include "SimWire.h"

#include "sim/Device.h"
#include "sim/FlashLayout.h"
#include "sim/PtySimulator.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <algorithm>
#include <cstdio>

using namespace gnxsim;

namespace {

double perSecond(qint64 count, qint64 ns)
{
    return ns > 0 ? count * 1e9 / double(ns) : 0.0;
}

void commandRate()
{
    Options o;
    o.platforms = 64;
    Device dev(o);
    const QList<QByteArray> commands{simwire::frame("TEST"), simwire::frame("LIG"),
                                     simwire::frame("SETUPSW" + QString(14, ',')),
                                     simwire::frame("IP,10" + QString(38, ','))};
    const int n = 200000;
    QElapsedTimer t;
    t.start();
    qint64 bytes = 0;
    for (int i = 0; i < n; ++i) {
        dev.receive(commands[i % commands.size()]);
        for (const auto& u : dev.takeOutput())
            bytes += u.bytes.size();
        if (i % 10000 == 0)
            dev.clearReceived();
    }
    printf("in-process commands: %.0f per second (%d commands, %.1f MB answered)\n",
           perSecond(n, t.nsecsElapsed()), n, bytes / 1e6);
}

void recordRate()
{
    RxReport r;
    r.time = QDateTime(QDate(2024, 1, 1), QTime(12, 0), Qt::UTC);
    r.platformId = "ABCDEF1";
    r.payload = QByteArray(20, 'x');
    const int n = 200000;
    QElapsedTimer t;
    t.start();
    qint64 sum = 0;
    for (int i = 0; i < n; ++i) {
        r.latitude = i;
        sum += FlashLayout::gnx134Record(r).size();
    }
    const qint64 a = t.nsecsElapsed();
    t.restart();
    for (int i = 0; i < n; ++i) {
        r.latitude = i;
        sum += FlashLayout::gnx234Record(r).size();
    }
    const qint64 b = t.nsecsElapsed();
    printf("flash records: GNX134 %.0f per second, GNX234 %.0f per second (%lld bytes)\n", perSecond(n, a),
           perSecond(n, b), sum);
}

void flashAnswers()
{
    Options o;
    o.platforms = 64;
    o.flashRecords = 20000;
    QElapsedTimer t;
    t.start();
    Device dev(o);
    printf("seeding 20000 flash records: %.1f ms (%lld bytes)\n", t.nsecsElapsed() / 1e6,
           qint64(dev.flashBytes().size()));
    const QByteArray rfp = simwire::frame("RFP,0,16384");
    const int n = 200;
    t.restart();
    qint64 bytes = 0;
    for (int i = 0; i < n; ++i) {
        dev.receive(rfp);
        for (const auto& u : dev.takeOutput())
            bytes += u.bytes.size();
    }
    printf("binary flash answer of 16 KiB: %.2f ms each (%lld bytes on the wire)\n",
           t.nsecsElapsed() / 1e6 / n, bytes / n);
    Options live = o;
    live.flashRecords = 0;
    live.liveIntervalMs = 1;
    Device reporter(live);
    t.restart();
    reporter.advance(100000);
    const int reports = int(reporter.takeOutput().size());
    printf("live reports: %.0f per second generated\n", perSecond(reports, t.nsecsElapsed()));
}

void ptyRoundTrips()
{
    PtySimulator sim;
    if (!sim.start()) {
        printf("pty: cannot start (%s)\n", qPrintable(sim.errorString()));
        return;
    }
    PtyPeer peer(sim.slavePath());
    QList<qint64> us;
    const QByteArray test = simwire::frame("TEST");
    QElapsedTimer t;
    for (int i = 0; i < 500; ++i) {
        t.start();
        peer.send(test);
        if (peer.line().isEmpty())
            break;
        us << t.nsecsElapsed() / 1000;
    }
    std::sort(us.begin(), us.end());
    if (!us.isEmpty())
        printf("pty TEST round trip: median %lld us, 95th percentile %lld us (%d exchanges)\n",
               us[us.size() / 2], us[us.size() * 95 / 100], int(us.size()));
    t.start();
    peer.send(simwire::frame("RFP,0,16384"));
    QByteArray stream;
    QList<simwire::RfpFrame> frames;
    qint64 blocks = 0;
    QByteArray data;
    while (t.elapsed() < 10000) {
        peer.readSome(1000);
        stream += peer.buffer();
        peer.buffer().clear();
        frames.clear();
        data.clear();
        if (simwire::cutRfp(stream, &frames, &blocks, &data))
            break;
    }
    printf("pty 16 KiB flash read, unthrottled: %.1f ms (%lld bytes)\n", t.nsecsElapsed() / 1e6,
           qint64(stream.size()));
}

// The emulator never sends faster than its line, nor much slower (8N1: ten bits a byte).
void throttledLineRate(int baud)
{
    Options o;
    o.baud = baud;
    PtySimulator sim(o);
    if (!sim.start())
        return;
    PtyPeer peer(sim.slavePath());
    const int bytes = baud * 2 / 10; // two seconds of line
    sim.sendRawBytes(QByteArray(bytes, 'x'));
    if (!peer.readSome(10000))
        return;
    QElapsedTimer t;
    t.start();
    const int first = int(peer.buffer().size());
    while (peer.buffer().size() < bytes && t.elapsed() < 60000)
        peer.readSome(1000);
    const double rate = (peer.buffer().size() - first) * 10.0 / (t.nsecsElapsed() / 1e9);
    printf("throttled line at %d baud: %.3f of the nominal rate\n", baud, rate / baud);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    commandRate();
    recordRate();
    flashAnswers();
    ptyRoundTrips();
    throttledLineRate(9600);
    throttledLineRate(115200);
    return 0;
}
