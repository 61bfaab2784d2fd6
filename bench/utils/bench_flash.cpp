// Decoding speed of a single flash dump (later receivers), through FlashMemory's signal as the
// window receives it, and through the bare decoder.
#include "utils/FlashDecoder.h"
#include "utils/FlashMemory.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRandomGenerator>

#include <cstdio>
#include <functional>

using OrviaGonioManager::Com::GnxLink;
using OrviaGonioManager::Com::OrviaRxMessage_t;
using OrviaGonioManager::Utils::FlashDecoder;
using OrviaGonioManager::Utils::FlashMemory;

namespace {

constexpr int kRecords = 100000;
constexpr int kRuns = 5;

void put(QByteArray& h, int first, int width, quint64 value)
{
    for (int i = 0; i < width; ++i) {
        const int k = first + i;
        if ((value >> i) & 1u)
            h[k / 8] = char(h[k / 8] | (1 << (k % 8)));
    }
}

QByteArray buildDump()
{
    QRandomGenerator rng(234);
    QByteArray dump;
    for (int r = 0; r < kRecords; ++r) {
        QByteArray h(FlashDecoder::kDumpHeaderSize, '\0');
        const int bits = 200 + int(rng.bounded(56)); // 25 to 32 payload bytes
        put(h, 0, 4, rng.bounded(9));
        put(h, 4, 3, rng.bounded(8));
        put(h, 8, 28, rng.bounded(0x10000000u));
        put(h, 40, 5, rng.bounded(24));
        put(h, 45, 6, rng.bounded(60));
        put(h, 51, 6, rng.bounded(60));
        put(h, 57, 5, 1 + rng.bounded(28));
        put(h, 62, 4, 1 + rng.bounded(12));
        put(h, 66, 7, 20 + rng.bounded(10));
        put(h, 73, 29, 401600000u + rng.bounded(100000));
        put(h, 102, 9, rng.bounded(360));
        put(h, 111, 10, quint64(-120 - int(rng.bounded(20))) & 0x3FF);
        put(h, 121, 16, 60 + rng.bounded(60));
        put(h, 137, 25, quint64(qint64(rng.bounded(10800000)) - 5400000) & 0x1FFFFFF);
        put(h, 162, 24, quint64(qint64(rng.bounded(16000000)) - 8000000) & 0xFFFFFF);
        put(h, 186, 9, rng.bounded(360));
        put(h, 198, 9, quint64(bits));
        dump += h;
        for (int i = 0; i < (bits + 7) / 8 + 1; ++i)
            dump += char(rng.bounded(256));
        dump[dump.size() - 1] = 0; // the byte after a record
    }
    dump += char(0xFF);
    return dump;
}

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
    const QByteArray dump = buildDump();
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
