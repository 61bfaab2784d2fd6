// Decoding speed of a single flash dump (later receivers), through FlashMemory's signal as the
// window receives it, and through the bare decoder.
#include "bench/SyntheticDump.h"
#include "utils/FlashDecoder.h"
#include "utils/FlashMemory.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <cstdio>
#include <functional>

using OrviaGonioManager::Com::GnxLink;
using OrviaGonioManager::Com::OrviaRxMessage_t;
using OrviaGonioManager::Utils::FlashDecoder;
using OrviaGonioManager::Utils::FlashMemory;

namespace {

constexpr int kRecords = 100000;
constexpr int kRuns = 5;

// Best of a few runs, in seconds.
double best(const std::function<void()>& run)
{
    double seconds = 1e9;
    for (int i = 0; i < kRuns; ++i) {
        QElapsedTimer timer;
        timer.start();
        run();
        seconds = qMin(seconds, double(timer.nsecsElapsed()) / 1e9);
    }
    return seconds;
}

void report(const char* what, double seconds, qsizetype bytes, qint64 records)
{
    std::printf("%-36s %8d records in %7.2f ms: %10.0f records/s, %7.1f MB/s\n", what, int(records),
                seconds * 1e3, double(records) / seconds, double(bytes) / seconds / 1e6);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QByteArray dump = syntheticDump(kRecords, 234);
    std::printf("GNX234 dump: %d records, %lld bytes\n", kRecords, qlonglong(dump.size()));

    qint64 received = 0;
    quint64 checksum = 0;
    QObject::connect(FlashMemory::instance(), &FlashMemory::sigOrviaDecoded,
                     [&](const OrviaRxMessage_t& m, GnxLink::RxOrigin_t) {
                         ++received;
                         checksum += m.frequency + quint64(m.payload.size());
                     });
    const double viaSignal = best([&] { FlashMemory::instance()->decodeDump(dump); });
    if (received != qint64(kRuns) * kRecords) {
        std::fprintf(stderr, "decoded %lld records, expected %d per run\n", qlonglong(received), kRecords);
        return 1;
    }
    report("FlashMemory::decodeDump (signal)", viaSignal, dump.size(), kRecords);

    qint64 count = 0;
    const double bare = best([&] {
        FlashDecoder::decodeDump(dump, [&](const OrviaRxMessage_t& m) {
            ++count;
            checksum += m.period;
        });
    });
    report("FlashDecoder::decodeDump (no signal)", bare, dump.size(), kRecords);
    std::printf("(checksum %llu)\n", static_cast<unsigned long long>(checksum));
    return 0;
}
