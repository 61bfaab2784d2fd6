// Request engine against the in-process emulator: TEST round trip, flash read rate, and the CPU
// that a request costs while it waits on a silent device. Prints figures, asserts nothing.

#include "app/Settings.h"
#include "bench/BenchSupport.h"
#include "com/GnxLink.h"
#include "mrl/utils/Exception.h"
#include "sim/PtySimulator.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <sys/resource.h>
#include <vector>

using OrviaGonioManager::Com::GnxLink;

namespace {

double processCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double threadCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    const size_t index = std::min(values.size() - 1, size_t(p * double(values.size() - 1) + 0.5));
    return values[index];
}

void roundTrip(GnxLink& gnx)
{
    constexpr int kRuns = 1000;
    for (int i = 0; i < 20; ++i) // warm-up
        gnx.sendBlockingRequest(GnxLink::CMD_TEST);
    std::vector<double> us;
    us.reserve(kRuns);
    QElapsedTimer timer;
    for (int i = 0; i < kRuns; ++i) {
        timer.start();
        gnx.sendBlockingRequest(GnxLink::CMD_TEST);
        us.push_back(double(timer.nsecsElapsed()) / 1000.0);
    }
    std::printf("TEST round trip (%d requests): median %.0f us, p99 %.0f us, max %.0f us\n", kRuns,
                percentile(us, 0.5), percentile(us, 0.99), percentile(us, 1.0));
}

void flashRead(GnxLink& gnx)
{
    QElapsedTimer timer;
    timer.start();
    const QByteArray flash = gnx.readFlashMemory();
    const double s = double(timer.nsecsElapsed()) / 1e9;
    std::printf("readFlashMemory: %lld bytes in %.3f s (%.0f KiB/s)\n", qint64(flash.size()), s,
                double(flash.size()) / 1024.0 / s);
}

void silentWait(GnxLink& gnx, gnxsim::PtySimulator& sim)
{
    auto& settings = OrviaGonioManager::Utils::Settings::instance();
    settings.gnxCommandTimeoutMs = 5000;
    sim.setStalled(true);
    const double process0 = processCpuSeconds();
    const double thread0 = threadCpuSeconds();
    QElapsedTimer timer;
    timer.start();
    QString outcome;
    try {
        gnx.sendBlockingRequest(GnxLink::CMD_GSN);
    } catch (const MRL::Utils::Exception& e) {
        outcome = e.message();
    }
    const double wall = double(timer.nsecsElapsed()) / 1e9;
    const double process = processCpuSeconds() - process0;
    const double thread = threadCpuSeconds() - thread0;
    std::printf("request waiting on a silent device: %.2f s (%s)\n", wall, qPrintable(outcome));
    std::printf("  CPU of the waiting (GUI) thread: %.4f s = %.3f%% of one core\n", thread,
                100.0 * thread / wall);
    std::printf(
        "  CPU of the whole process (link and emulator threads included): %.4f s = %.3f%% of one core\n",
        process, 100.0 * process / wall);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    const auto sandbox = enterBenchSandbox();

    gnxsim::Options options;
    options.model = gnxsim::Model::Gnx234;
    options.flashRecords = 2000;
    gnxsim::PtySimulator sim(options);
    if (!sim.start()) {
        std::fprintf(stderr, "emulator: %s\n", qPrintable(sim.errorString()));
        return 1;
    }
    GnxLink gnx;
    gnx.openConnection(sim.slavePath());
    try {
        gnx.readDeviceInfo();
        roundTrip(gnx);
        flashRead(gnx);
        silentWait(gnx, sim);
    } catch (const MRL::Utils::Exception& e) {
        std::fprintf(stderr, "bench_link: %s\n", qPrintable(e.message()));
        return 1;
    }
    gnx.closeConnection();
    return 0;
}
