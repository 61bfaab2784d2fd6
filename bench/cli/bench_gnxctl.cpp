// gnxctl flash read of about 2 MB against a receiver paced at 115200 baud: the time taken, as a
// ratio to the line time of the bytes on the wire (the announced size plus the frames). Then
// 1,000 runs of info and platforms export against a receiver sending 100 live reports a second
// that nobody reads between runs: the count of runs that failed.
#include "sim/PtySimulator.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdio>

namespace {

constexpr int kBaud = 115200;
constexpr double kLineBytesPerSecond = kBaud / 10.0; // 8N1: ten bits a byte
constexpr qint64 kBlock = 128;                       // bytes of data a binary frame
constexpr qint64 kStep = 16384;                      // bytes a read request asks for

qint64 digits(qint64 n)
{
    return QByteArray::number(n).size();
}

// "$RFP,k,address," + block + "*CS\r\n" for the count frame, every data frame and the closing one.
qint64 wireBytesOfRead(qint64 start, qint64 length)
{
    const qint64 blocks = (length + kBlock - 1) / kBlock;
    const auto frame = [](qint64 k, qint64 address, qint64 bytes) {
        return 6 + digits(k) + 1 + digits(address) + 1 + bytes + 5 - 1;
    };
    qint64 total = frame(0, start, kBlock) + frame(blocks + 1, start + length, 0);
    for (qint64 k = 0; k < blocks; ++k)
        total += frame(k + 1, start + k * kBlock, kBlock);
    return total;
}

// Consecutive runs against a receiver that talks while nobody listens; returns the failures.
int talkingReceiver(const QTemporaryDir& dir)
{
    const int runs =
        qEnvironmentVariableIsSet("BENCH_RUNS") ? qEnvironmentVariableIntValue("BENCH_RUNS") : 1000;
    gnxsim::Options options;
    options.model = gnxsim::Model::Gnx234;
    options.baud = kBaud;
    options.platforms = 8;
    options.liveIntervalMs = 10;
    options.linkPath = dir.filePath("talking");
    gnxsim::PtySimulator sim(options);
    if (!sim.start()) {
        std::printf("cannot start gnxsim: %s\n", qPrintable(sim.errorString()));
        return runs;
    }
    int failures = 0;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < runs; ++i) {
        QProcess gnxctl;
        gnxctl.setStandardOutputFile(QProcess::nullDevice());
        gnxctl.start(GNXCTL_PATH, QStringList{"--port", options.linkPath} +
                                      (i % 2 ? QStringList{"platforms", "export"} : QStringList{"info"}));
        gnxctl.waitForFinished(-1);
        if (gnxctl.exitStatus() != QProcess::NormalExit || gnxctl.exitCode() != 0) {
            ++failures;
            std::printf("  run %d failed: %s", i, gnxctl.readAllStandardError().constData());
        }
    }
    std::printf("gnxctl info / platforms export against a receiver sending 100 live reports a second: %d "
                "failures in %d runs (target 0), %.0f ms a run\n",
                failures, runs, double(timer.elapsed()) / runs);
    return failures;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    gnxsim::Options options;
    options.model = gnxsim::Model::Gnx234;
    options.baud = kBaud;
    options.flashRecords = 60000; // about 2 MB
    options.linkPath = dir.filePath("gnx");
    gnxsim::PtySimulator sim(options);
    if (!sim.start()) {
        std::printf("cannot start gnxsim: %s\n", qPrintable(sim.errorString()));
        return 1;
    }
    const qint64 size = sim.flashBytes().size() + 1; // as the receiver announces it
    qint64 wire = 0;
    for (qint64 at = 0; at < size; at += kStep)
        wire += wireBytesOfRead(at, qMin(kStep, size - at)) + 6 + 16; // and the request
    QProcess gnxctl;
    gnxctl.setStandardOutputFile(QProcess::nullDevice());
    QElapsedTimer timer;
    timer.start();
    gnxctl.start(GNXCTL_PATH, {"--port", options.linkPath, "flash", "read", "--format", "npr"});
    gnxctl.waitForFinished(-1);
    const double seconds = timer.nsecsElapsed() / 1e9;
    if (gnxctl.exitCode() != 0) {
        std::printf("gnxctl flash read failed: %s\n", gnxctl.readAllStandardError().constData());
        return 1;
    }
    const double lineSeconds = double(wire) / kLineBytesPerSecond;
    std::printf("gnxctl flash read of %lld bytes at %d baud: %.2f s for %.2f s of line time (%lld bytes on "
                "the wire, connection and decoding included)\n",
                size, kBaud, seconds, lineSeconds, wire);
    std::printf("  ratio of the line time to the time taken: %.3f (target at least 0.9)\n",
                lineSeconds / seconds);
    return talkingReceiver(dir) == 0 ? 0 : 1;
}
