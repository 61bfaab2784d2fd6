// A long run of the core against the emulator: a live report every 10 ms and the keep-alive on.
// Samples RSS and CPU every 10 s, then prints the growth after the first minute and the reports
// received against those sent. The emulator runs as its own process, so that what is measured is
// the program's alone (the emulator's flash memory fills with the reports). Usage: ogm_soak
// [minutes] (default 10).
#include "app/Settings.h"
#include "bench/BenchSupport.h"
#include "com/GnxLink.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <sys/resource.h>
#include <unistd.h>

using OrviaGonioManager::Com::GnxLink;

namespace {

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int minutes = qMax(1, app.arguments().value(1, QStringLiteral("10")).toInt());
    QTemporaryDir work;
    QDir(work.path()).mkdir(QStringLiteral("run"));
    QDir::setCurrent(work.filePath(QStringLiteral("run")));
    auto& settings = OrviaGonioManager::Utils::Settings::instance();
    settings.printAtCmdDebugInfo = false; // the keep-alive stays on, at its default period

    const QString linkPath = work.filePath(QStringLiteral("gnx0"));
    QProcess sim;
    sim.start(QCoreApplication::applicationDirPath() + QStringLiteral("/gnxsim"),
              {QStringLiteral("--link"), linkPath, QStringLiteral("--platforms"), QStringLiteral("6"),
               QStringLiteral("--live-interval"), QStringLiteral("10")});
    if (!sim.waitForReadyRead(10000) || !QFileInfo::exists(linkPath)) {
        std::fprintf(stderr, "soak: the emulator did not start: %s\n", qPrintable(sim.errorString()));
        return 1;
    }
    sim.readAll();
    // What the emulator says of itself; "status" carries the live reports it sent.
    const auto liveReportsSent = [&] {
        sim.write("status\n");
        static const QRegularExpression sent(QStringLiteral("live reports (\\d+)"));
        QElapsedTimer wait;
        wait.start();
        QByteArray answer;
        while (!sent.match(QString::fromLatin1(answer)).hasMatch() && wait.elapsed() < 5000)
            if (sim.waitForReadyRead(500))
                answer += sim.readAll();
        return sent.match(QString::fromLatin1(answer)).captured(1).toLongLong();
    };
    GnxLink link;
    qint64 received = 0;
    QObject::connect(&link, &GnxLink::sigOrviaMessageReceived, [&] { ++received; });
    bool lost = false;
    QObject::connect(&link, &GnxLink::sigLinkCompromised, [&](const QString&, const QString& message) {
        std::printf("link lost: %s\n", qPrintable(message));
        lost = true;
        app.quit();
    });
    link.openConnection(linkPath);
    link.readDeviceInfo();
    const qint64 sentBefore = liveReportsSent();
    received = 0;

    QElapsedTimer clock;
    clock.start();
    double rssAtOneMinute = 0.0, lastCpu = cpuSeconds();
    qint64 lastMs = 0;
    std::printf("%8s %10s %8s %10s\n", "seconds", "RSS (MB)", "CPU %", "received");
    QTimer sampler;
    QObject::connect(&sampler, &QTimer::timeout, [&] {
        const qint64 ms = clock.elapsed();
        const double cpu = cpuSeconds();
        std::printf("%8lld %10.1f %8.1f %10lld\n", qlonglong(ms / 1000), residentMb(),
                    100.0 * (cpu - lastCpu) / (double(ms - lastMs) / 1000.0), qlonglong(received));
        lastCpu = cpu;
        lastMs = ms;
        if (rssAtOneMinute == 0.0 && ms >= 60000)
            rssAtOneMinute = residentMb();
        if (ms >= qint64(minutes) * 60000)
            app.quit();
    });
    sampler.start(10000);
    app.exec();

    sim.write("live 0\n");
    const qint64 sent = liveReportsSent() - sentBefore;
    QElapsedTimer drain;
    drain.start();
    while (received < sent && drain.elapsed() < 5000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    const double rss = residentMb();
    std::printf("growth after the first minute: %.1f%% (%.1f MB to %.1f MB)\n",
                rssAtOneMinute > 0 ? 100.0 * (rss - rssAtOneMinute) / rssAtOneMinute : 0.0, rssAtOneMinute,
                rss);
    std::printf("reports received: %lld of %lld sent\n", qlonglong(received), qlonglong(sent));
    sim.terminate();
    sim.waitForFinished(5000);
    return lost || received < sent ? 1 : 0;
}
