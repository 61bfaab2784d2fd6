// The RX table at scale: a flash read's messages to the sorted table through the window's own
// path (rows made with the favourite lookup, entered in one batch, sorted in the view), its memory,
// an ID filter change on a million rows; then, through the link from the emulator, a flash read at
// the line rate with its progress and Cancel, and a live burst.
#include "bench/BenchSupport.h"
#include "bench/SyntheticDump.h"
#include "sim/PtySimulator.h"
#include "ui/JobPanel.h"
#include "ui/MainWindow.h"
#include "ui_MainWindow.h"
#include "utils/FlashDecoder.h"
#include "utils/JobProgress.h"
#include "utils/RxTableModel.h"

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHeaderView>
#include <QPushButton>
#include <QTableView>
#include <QTimer>

#include <cstdio>
#include <unistd.h>

using OrviaGonioManager::Com::GnxLink;
using OrviaGonioManager::Com::OrviaRxMessage_t;
using OrviaGonioManager::Utils::FlashDecoder;
using OrviaGonioManager::Utils::RxTableModel;

namespace {

// Decode alone, then decode to a sorted, shown table, as slotReadFlashMemory does it.
void flashRead(int records)
{
    const QByteArray dump = syntheticDump(records, 61);
    QElapsedTimer t;
    t.start();
    qint64 decoded = 0;
    FlashDecoder::decodeDump(dump, [&](const OrviaRxMessage_t&) { ++decoded; });
    const double decodeMs = msSince(t);

    const double rssBefore = residentMb();
    RxTableModel model;
    QTableView view;
    view.verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    view.horizontalHeader()->setResizeContentsPrecision(0);
    view.setModel(&model);
    view.show();
    QCoreApplication::processEvents();
    t.start();
    std::vector<RxTableModel::Row> batch;
    FlashDecoder::decodeDump(dump, [&](const OrviaRxMessage_t& m) {
        batch.push_back(model.rowFor(m, GnxLink::RXORIGIN_FLASH, GnxLink::GNX_V2, 64));
    });
    const double rowsMs = msSince(t);
    model.addRows(std::move(batch));
    const double addMs = msSince(t);
    view.horizontalHeader()->setSortIndicator(RxTableModel::COL_TIME, Qt::DescendingOrder);
    view.setSortingEnabled(true);
    const double sortMs = msSince(t);
    view.resizeColumnsToContents();
    const double resizeMs = msSince(t);
    QCoreApplication::processEvents();
    const double tableMs = msSince(t);
    if (qEnvironmentVariableIsSet("BENCH_PHASES"))
        std::printf("   rows %.1f add %.1f sort %.1f resize %.1f paint %.1f\n", rowsMs, addMs, sortMs,
                    resizeMs, tableMs);
    const double rss = residentMb();
    std::printf("%8d messages: sorted table in %8.1f ms, %5.1f x the bare decode (%6.1f ms); RSS +%6.1f MB,"
                " %6.1f MB in all\n",
                int(decoded), tableMs, tableMs / qMax(decodeMs, 0.001), decodeMs, rss - rssBefore, rss);
    if (records < 1000000)
        return;
    t.start();
    model.setIdFilter(QStringLiteral("AB"));
    QCoreApplication::processEvents();
    std::printf("%8d messages: ID filter change shown in %6.1f ms (%d rows pass)\n", int(decoded), msSince(t),
                model.rowCount());
}

QByteArray nprLine(int n)
{
    const QByteArray payload =
        QStringLiteral("NPR,26,11,22,3,%1,%2,ABCDE,401650000,6,10,-120,60000,120000,7,2,2,56,"
                       "115265C0E4E1C0")
            .arg(n / 60 % 60)
            .arg(n % 60)
            .toLatin1();
    quint8 sum = 0;
    for (const char c : payload + '*')
        sum ^= quint8(c);
    return '$' + payload + '*' + QByteArray::number(sum, 16).toUpper().rightJustified(2, '0') + "\r\n";
}

// The window, connected to the emulator; false when it would not connect.
bool connectWindow(gnxsim::PtySimulator& sim, OrviaGonioManager::Ui::MainWindow& window)
{
    window.show();
    QElapsedTimer wait;
    wait.start();
    while (!window.portAction(sim.slavePath()) && wait.elapsed() < 10000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    if (QAction* action = window.portAction(sim.slavePath()))
        action->trigger();
    return !window.connectedPort().isEmpty();
}

// A flash read at the receiver's line rate: when its progress shows, and how soon a Cancel
// pressed part-way ends it (one block of 16 KiB is about 1.6 s at 115200 baud).
void lineRateFlashRead()
{
    gnxsim::Options options;
    options.baud = 115200;
    options.flashRecords = 3000;
    gnxsim::PtySimulator sim(options);
    if (!sim.start())
        return;
    qputenv("GNX_EXTRA_PORTS", sim.slavePath().toLocal8Bit());
    OrviaGonioManager::Ui::MainWindow window;
    if (!connectWindow(sim, window)) {
        std::printf("line-rate flash read: not connected\n");
        return;
    }
    QElapsedTimer clock;
    qint64 shownMs = -1, cancelMs = -1, endMs = -1;
    OrviaGonioManager::Utils::JobProgress* job = window.jobProgress();
    QObject::connect(job, &OrviaGonioManager::Utils::JobProgress::sigStarted,
                     [&] { shownMs = clock.elapsed(); });
    QObject::connect(job, &OrviaGonioManager::Utils::JobProgress::sigFinished,
                     [&] { endMs = clock.elapsed(); });
    QTimer::singleShot(4000, [&] {
        cancelMs = clock.elapsed();
        window.jobPanel()->cancelButton()->click();
    });
    clock.start();
    window.form()->pushButtonRxFlashRead->click();
    std::printf("flash read at 115200 baud: progress shown after %lld ms; Cancel honoured %lld ms after it"
                " was pressed\n",
                qlonglong(shownMs), qlonglong(endMs - cancelMs));
}

// 1,000 NPR lines a second for 10 s from the emulator, through the link, into the window.
void liveBurst()
{
    gnxsim::Options options;
    gnxsim::PtySimulator sim(options);
    if (!sim.start())
        return;
    qputenv("GNX_EXTRA_PORTS", sim.slavePath().toLocal8Bit());
    OrviaGonioManager::Ui::MainWindow window;
    if (!connectWindow(sim, window)) {
        std::printf("live burst: not connected\n");
        return;
    }
    QElapsedTimer wait;
    RxTableModel* model = window.rxModel();
    const int before = model->allRowCount();
    constexpr int kSeconds = 10, kPerTick = 10, kTickMs = 10;
    int sent = 0;
    qint64 longestStallMs = 0;
    QElapsedTimer clock, lastTick;
    clock.start();
    lastTick.start();
    QTimer sender, probe;
    QObject::connect(&sender, &QTimer::timeout, [&] {
        QByteArray lines;
        for (int i = 0; i < kPerTick; ++i)
            lines += nprLine(sent++);
        sim.sendRawBytes(lines);
    });
    QObject::connect(&probe, &QTimer::timeout, [&] {
        longestStallMs = qMax(longestStallMs, lastTick.elapsed() - kTickMs);
        lastTick.restart();
    });
    sender.start(kTickMs);
    probe.start(kTickMs);
    while (clock.elapsed() < kSeconds * 1000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    sender.stop();
    wait.start();
    while (model->allRowCount() - before < sent && wait.elapsed() < 5000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    std::printf("live burst, 1000 NPR/s for %d s: %d of %d rows, longest event-loop stall %lld ms\n",
                kSeconds, model->allRowCount() - before, sent, qlonglong(longestStallMs));
}

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const auto sandbox = enterBenchSandbox();
    if (!writeEmptyFormats(*sandbox))
        return 1;
    for (const int records : {10000, 61428, 100000, 1000000})
        flashRead(records);
    lineRateFlashRead();
    liveBurst();
    return 0;
}
