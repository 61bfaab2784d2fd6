// Device protocol figures: firmware upload against a line-rate receiver, live report parsing.
#include "app/Settings.h"
#include "bench/BenchSupport.h"
#include "com/GnxFrame.h"
#include "com/GnxLink.h"
#include "com/NprCodec.h"
#include "sim/Firmware.h"
#include "sim/PtySimulator.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>

using namespace OrviaGonioManager::Com;

namespace {

constexpr int kBaud = 115200;
constexpr double kLineBytesPerSecond = kBaud / 10.0; // 8N1: ten bits a byte

double perSecond(qint64 count, qint64 ns)
{
    return ns > 0 ? count * 1e9 / double(ns) : 0.0;
}

// Runs the event loop until the condition holds or the time is up; false on time-out.
template <class F> bool waitFor(F condition, int ms)
{
    QElapsedTimer t;
    t.start();
    QEventLoop loop;
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, &loop, [&] {
        if (condition() || t.elapsed() > ms)
            loop.quit();
    });
    tick.start(1);
    if (!condition())
        loop.exec();
    return condition();
}

// Bytes of one framed line: "$" + payload + "*" + two digits + CR LF.
qint64 framedSize(const QString& payload)
{
    return payload.size() + 6;
}

void firmwareUpload(int dataRecords, int recordBytes)
{
    gnxsim::Options options;
    options.model = gnxsim::Model::Gnx234;
    options.mode = gnxsim::Mode::Bl;
    options.baud = kBaud;
    gnxsim::PtySimulator sim(options);
    if (!sim.start()) {
        printf("firmware upload: cannot start gnxsim (%s)\n", qPrintable(sim.errorString()));
        return;
    }
    GnxLink link;
    link.openConnection(sim.slavePath());
    QList<QByteArray> records =
        gnxsim::Firmware::vanFile(gnxsim::Model::Gnx234, QStringLiteral("7.%1").arg(recordBytes), dataRecords,
                                  recordBytes)
            .split('\r');
    records.removeFirst();
    link.readDeviceInfo(); // the identification answer's size, for the count below
    const qint64 testReply = framedSize(QStringLiteral("TEST,") + link.replyValues().join(QLatin1Char(',')));
    sim.clearReceived();

    QElapsedTimer timer;
    timer.start();
    try {
        link.uploadFirmware(records);
    } catch (const std::exception& e) {
        printf("firmware upload failed: %s\n", e.what());
        return;
    }
    const qint64 ns = timer.nsecsElapsed();

    // Every command is answered "$ACK,1*CS" except the identification.
    qint64 sent = 0, answered = 0;
    for (const QString& line : sim.receivedLines()) {
        sent += framedSize(line);
        answered += line == QLatin1String("TEST") ? testReply : framedSize(QStringLiteral("ACK,1"));
    }
    const qint64 bytes = sent + answered;
    const double seconds = ns / 1e9;
    const double lineSeconds = bytes / kLineBytesPerSecond;
    // gnxsim paces both directions at the line rate: what is left beyond the line time is the
    // program's and the pseudo-terminal's turn-around.
    const double turnaround = qMax(0.0, seconds - lineSeconds);
    const int requests = int(sim.receivedLines().size());
    printf("firmware upload at %d baud, %d records of %d bytes: %.3f s, %lld bytes both ways "
           "(%lld sent, %lld answered), %.0f bytes/s\n",
           kBaud, int(records.size()), recordBytes, seconds, bytes, sent, answered, bytes / seconds);
    printf("  ratio to the line-rate limit (bytes both ways / 11520 B/s, over the time taken): %.3f\n",
           lineSeconds / seconds);
    printf("  turn-around beyond the line time: %.3f ms per request over %d requests\n",
           1000.0 * turnaround / requests, requests);
}

const QString kNprf =
    QStringLiteral("NPRF,63,24,2,29,6,7,8,FEDCBA9,401310000,1,45,5,0,-100,300,2610000,-60000,359,"
                   "152,A90102030405060708090A0B0C0D0E0F101112");
const QString kNpr = QStringLiteral("NPR,24,2,29,6,7,8,ABCDE,401310000,3,45,-100,2610000,-60000,359,5,2,128,"
                                    "0102030405060708090A0B0C0D0E0F10");

void parseRates()
{
    const int n = 300000;
    const QStringList nprf = kNprf.split(QLatin1Char(',')).mid(1);
    const QStringList npr = kNpr.split(QLatin1Char(',')).mid(1);
    QElapsedTimer t;
    t.start();
    qint64 sum = 0;
    for (int i = 0; i < n; ++i)
        sum += NprCodec::parse(GnxLink::GNX_V2, i % 2 ? GnxLink::GNXMSG_NPRF : GnxLink::GNXMSG_NPR,
                               i % 2 ? nprf : npr)
                   .payload.size();
    const qint64 parseNs = t.nsecsElapsed();

    const QString lines[2] = {QLatin1Char('$') + GnxFrame::seal(kNpr),
                              QLatin1Char('$') + GnxFrame::seal(kNprf)};
    t.restart();
    for (int i = 0; i < n; ++i) {
        const GnxFrame::DecodedLine d = GnxFrame::decodeLine(lines[i % 2]);
        sum += NprCodec::parse(GnxLink::GNX_V2, i % 2 ? GnxLink::GNXMSG_NPRF : GnxLink::GNXMSG_NPR, d.params)
                   .payload.size();
    }
    const qint64 lineNs = t.nsecsElapsed();

    GnxLink link;
    qint64 emitted = 0;
    QObject::connect(&link, &GnxLink::sigOrviaMessageReceived, [&emitted] { ++emitted; });
    t.restart();
    for (int i = 0; i < n; ++i)
        link.slotRxReceived(i % 2 ? GnxLink::GNXMSG_NPRF : GnxLink::GNXMSG_NPR, i % 2 ? nprf : npr);
    const qint64 slotNs = t.nsecsElapsed();

    const OrviaRxMessage_t message = NprCodec::parse(GnxLink::GNX_V2, GnxLink::GNXMSG_NPRF, nprf);
    t.restart();
    for (int i = 0; i < n; ++i)
        sum += NprCodec::formatLine(message, {GnxLink::GNX_V2, 64, false}).size();
    const qint64 formatNs = t.nsecsElapsed();

    printf("live report parsing: %.0f per second (fields), %.0f per second (line checked and parsed), "
           "%.0f per second (GnxLink slot with signal, %lld emitted)\n",
           perSecond(n, parseNs), perSecond(n, lineNs), perSecond(n, slotNs), emitted);
    printf("NPR line formatting: %.0f per second (%lld)\n", perSecond(n, formatNs), sum % 10);
}

// Reports written by the receiver as fast as the pseudo-terminal carries them.
void liveOverPty()
{
    gnxsim::Options options;
    gnxsim::PtySimulator sim(options);
    if (!sim.start())
        return;
    GnxLink link;
    link.openConnection(sim.slavePath());
    link.readDeviceInfo();
    const int n = 20000;
    // A receiver drops reports while nobody reads them: keep within the pseudo-terminal's buffer.
    const int batch = 16;
    int received = 0;
    QObject::connect(&link, &GnxLink::sigOrviaMessageReceived, [&received] { ++received; });
    QElapsedTimer t;
    t.start();
    int sent = 0;
    while (sent < n) {
        for (int i = 0; i < batch; ++i, ++sent)
            sim.sendRawLine(sent % 2 ? kNprf : kNpr);
        if (!waitFor([&] { return received >= sent; }, 2000))
            break;
    }
    printf("live reports over the pseudo-terminal, unthrottled: %.0f per second (%d of %d received)\n",
           perSecond(received, t.nsecsElapsed()), received, sent);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    qRegisterMetaType<OrviaRxMessage_t>();
    const auto sandbox = enterBenchSandbox();
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
        if (type == QtWarningMsg || type == QtCriticalMsg || type == QtFatalMsg)
            fprintf(stderr, "%s\n", qPrintable(text));
    });

    firmwareUpload(300, 32);
    firmwareUpload(100, 128);
    parseRates();
    liveOverPty();
    return 0;
}
