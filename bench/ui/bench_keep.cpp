// Keeping every message: (a) the window connected to the emulator, 1,000 live reports a second
// for 60 s with "Keep messages" on: the longest event-loop stall (a 1 ms timer's longest gap) and
// how many reports reached the store; (b) a full flash memory's rows (61,428) handed to the store
// writer at once: how long until they are committed, and handed again, how many were added.
#include "bench/BenchSupport.h"
#include "bench/SyntheticDump.h"
#include "sim/PtySimulator.h"
#include "store/MessageStore.h"
#include "store/StoreWriter.h"
#include "ui/MainWindow.h"
#include "ui/UserSettings.h"
#include "utils/FlashDecoder.h"
#include "utils/RxTableModel.h"

#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTimer>

#include <cstdio>

using OrviaGonioManager::Com::GnxLink;
using OrviaGonioManager::Com::OrviaRxMessage_t;
using OrviaGonioManager::Store::MessageStore;
using OrviaGonioManager::Store::StoreWriter;
using OrviaGonioManager::Utils::FlashDecoder;
using OrviaGonioManager::Utils::RxTableModel;

namespace {

// A live report line, distinct for every n.
QByteArray nprLine(int n)
{
    const QByteArray payload =
        QStringLiteral("NPR,26,11,22,%1,%2,%3,ABCDE,%4,6,10,-120,60000,120000,7,2,2,56,"
                       "115265C0E4E1C0")
            .arg(n / 3600 % 24)
            .arg(n / 60 % 60)
            .arg(n % 60)
            .arg(401600000 + n)
            .toLatin1();
    quint8 sum = 0;
    for (const char c : payload + '*')
        sum ^= quint8(c);
    return '$' + payload + '*' + QByteArray::number(sum, 16).toUpper().rightJustified(2, '0') + "\r\n";
}

// Runs the event loop until done() or the time-out, looking every 5 ms, without spinning.
void waitFor(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer wait;
    wait.start();
    QTimer look;
    look.start(5);
    while (!done() && wait.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

// CPU time used so far by the store writer's thread, in ms: the machine may be shared, the wall
// clock then tells more of the others than of us.
double storeThreadCpuMs()
{
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString& tid : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(tid + QStringLiteral("/comm")));
        if (!comm.open(QIODevice::ReadOnly) || comm.readAll().trimmed() != "message store")
            continue;
        QFile stat(tasks.filePath(tid + QStringLiteral("/stat")));
        if (!stat.open(QIODevice::ReadOnly))
            return -1.0;
        // After the command's closing parenthesis: state is field 3, utime 14 and stime 15.
        const QByteArray line = stat.readAll();
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        return double(fields.value(11).toLongLong() + fields.value(12).toLongLong()) * 1000.0 /
               double(sysconf(_SC_CLK_TCK));
    }
    return -1.0;
}

qint64 storedCount(const QString& path, MessageStore::Query::Origin origin)
{
    QString error;
    const auto store = MessageStore::open(path, &error);
    if (!store) {
        std::printf("   %s\n", qPrintable(error));
        return -1;
    }
    const MessageStore::Check check = store->check();
    return origin == MessageStore::Query::Origin::Live ? check.liveMessages : check.flashMessages;
}

void windowLive(int seconds, bool keep)
{
    OrviaGonioManager::Ui::userSettings().setValue(QStringLiteral("store/keep"), keep);
    gnxsim::PtySimulator sim{gnxsim::Options()};
    if (!sim.start())
        return;
    qputenv("GNX_EXTRA_PORTS", sim.slavePath().toLocal8Bit());
    OrviaGonioManager::Ui::MainWindow window;
    window.show();
    waitFor([&] { return window.portAction(sim.slavePath()) != nullptr; }, 10000);
    if (QAction* action = window.portAction(sim.slavePath()))
        action->trigger();
    const StoreWriter* writer = window.storeWriter();
    if (window.connectedPort().isEmpty() || !writer != !keep) {
        std::printf("window, live: not connected\n");
        return;
    }
    const QString path = keep ? writer->url() : QString();
    const qint64 storedBefore = keep ? storedCount(path, MessageStore::Query::Origin::Live) : 0;
    RxTableModel* model = window.rxModel();
    const int before = model->allRowCount();
    constexpr int kPerTick = 10, kTickMs = 10;
    int sent = 0;
    qint64 longestGapNs = 0, longestAtMs = 0;
    int rowsAtLongest = 0;
    QElapsedTimer clock, lastTick;
    QTimer sender, probe;
    probe.setTimerType(Qt::PreciseTimer);
    sender.setTimerType(Qt::PreciseTimer);
    QObject::connect(&sender, &QTimer::timeout, [&] {
        // Paced by the clock, not by the ticks: a late tick sends what is due.
        QByteArray lines;
        while (sent < clock.elapsed() * kPerTick / kTickMs)
            lines += nprLine(sent++);
        sim.sendRawBytes(lines);
    });
    QObject::connect(&probe, &QTimer::timeout, [&] {
        const qint64 gap = lastTick.nsecsElapsed();
        lastTick.restart();
        if (gap > longestGapNs) {
            longestGapNs = gap;
            longestAtMs = clock.elapsed();
            rowsAtLongest = model->allRowCount();
        }
    });
    clock.start();
    lastTick.start();
    sender.start(kTickMs);
    probe.start(1);
    waitFor([&] { return clock.elapsed() >= seconds * 1000; }, seconds * 1000 + 1000);
    sender.stop();
    probe.stop();
    waitFor([&] { return model->allRowCount() - before >= sent; }, 10000);
    QElapsedTimer settle;
    settle.start();
    if (keep)
        waitFor([&] { return writer->settledRows() >= writer->handedRows(); }, 10000);
    const double settleMs = msSince(settle);
    const int shown = model->allRowCount() - before;
    const qint64 stored = keep ? storedCount(path, MessageStore::Query::Origin::Live) - storedBefore : 0;
    std::printf(
        "window, %d live reports/s for %d s, \"Keep messages\" %s: %d sent, %d in the RX table, "
        "%lld in the store (%lld dropped); longest event-loop stall %.1f ms (1 ms timer's longest "
        "gap, %.1f s in, %d rows in the table); last commit %.0f ms after the last report was shown\n",
        kPerTick * 1000 / kTickMs, seconds, keep ? "on" : "off", sent, shown, qlonglong(stored),
        qlonglong(keep ? writer->droppedRows() : 0), double(longestGapNs) / 1e6 - 1.0,
        double(longestAtMs) / 1000.0, rowsAtLongest, settleMs);
}

void flashHandOver(int records)
{
    const QString path = QDir::current().absoluteFilePath(QStringLiteral("flash.sqlite"));
    QFile::remove(path);
    std::vector<RxTableModel::Row> rows;
    RxTableModel model;
    FlashDecoder::decodeDump(syntheticDump(records, 61), [&](const OrviaRxMessage_t& m) {
        rows.push_back(model.rowFor(m, GnxLink::RXORIGIN_FLASH, GnxLink::GNX_V2, 64));
    });
    StoreWriter writer(path);
    QList<QPair<int, int>> commits;
    QObject::connect(&writer, &StoreWriter::stored, [&](int added, int duplicates) {
        commits.append({added, duplicates});
    });
    // Opened before the clock starts, as in the window where the store opens at start-up.
    waitFor([&] { return QFile::exists(path); }, 10000);
    for (int pass = 1; pass <= 2; ++pass) {
        commits.clear();
        const qint64 settledBefore = writer.settledRows();
        const double cpuBefore = storeThreadCpuMs();
        QElapsedTimer t;
        t.start();
        writer.add(QStringLiteral("0042"), rows);
        const double handMs = msSince(t);
        waitFor([&] { return writer.settledRows() - settledBefore >= qint64(rows.size()); }, 30000);
        const double committedMs = msSince(t);
        const double cpuMs = storeThreadCpuMs() - cpuBefore;
        waitFor([&] { return !commits.isEmpty(); }, 5000);
        int added = 0, duplicates = 0;
        for (const auto& c : commits) {
            added += c.first;
            duplicates += c.second;
        }
        std::printf(
            "flash read of %d messages, hand-over %d: %.1f ms on the handing thread, committed %.0f "
            "ms after (%.0f ms of CPU in the store's thread); %d added, %d already kept, %d commit(s)\n",
            int(rows.size()), pass, handMs, committedMs, cpuMs, added, duplicates, int(commits.size()));
    }
    writer.finish(StoreWriter::kFinishMs);
    std::printf("   store: %lld flash messages\n",
                qlonglong(storedCount(path, MessageStore::Query::Origin::Flash)));
}

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const auto sandbox = enterBenchSandbox();
    if (!writeEmptyFormats(*sandbox))
        return 1;
    if (!qEnvironmentVariableIsSet("BENCH_KEEP_NO_FLASH"))
        flashHandOver(61428);
    const int seconds = qEnvironmentVariableIntValue("BENCH_KEEP_SECONDS");
    windowLive(seconds > 0 ? seconds : 60, true);
    // The same without the store, to tell the window's own stalls from the store's.
    if (qEnvironmentVariableIsSet("BENCH_KEEP_COMPARE"))
        windowLive(seconds > 0 ? seconds : 60, false);
    return 0;
}
