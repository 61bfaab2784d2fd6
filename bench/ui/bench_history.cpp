// The History window on a big store: a search's answer reaches the table without holding the
// event loop up long (the database is read in the worker's thread), Show in Bearings on it, a sort
// of it, and one platform over one day. Figures only; the store is an SQLite file in a scratch
// directory.
#include "bench/BenchSupport.h"
#include "store/MessageStore.h"
#include "ui/HistoryWindow.h"
#include "utils/PlatformNumber.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QDateTimeEdit>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QSortFilterProxyModel>
#include <QSpinBox>
#include <QTableView>
#include <QTimer>

#include <cstdio>

using OrviaGonioManager::Store::MessageStore;
using OrviaGonioManager::Ui::HistoryWindow;
using Row = OrviaGonioManager::Utils::RxTableModel::Row;

namespace {

constexpr int kDays = 10;
constexpr int kPlatforms = 100;
constexpr int kPerDay = 50000; // messages a day, one receiver

Row message(int day, int i)
{
    Row row;
    auto& m = row.message;
    m.mjd = quint64(61360 + day);
    m.secondsOfDay = double(i) * 86400.0 / kPerDay;
    m.platformId = QStringLiteral("%1").arg(0x2A100 + i % kPlatforms, 5, 16, QLatin1Char('0')).toUpper();
    m.frequency = 401650000;
    m.flagBit0 = true;
    m.direction = quint16(i % 360);
    m.gnxLatitude = 43.59;
    m.gnxLongitude = 1.23;
    m.payload = QByteArray::fromHex("07FE18003B107748");
    row.byNumber.platform = OrviaGonioManager::Utils::PlatformNumber::shortest(m.platformId);
    return row;
}

// Runs until the window's search ends, and gives the longest the event loop waited meanwhile.
double searchStall(HistoryWindow& w, double* totalMs)
{
    QSignalSpy done(&w, &HistoryWindow::sigQueryDone);
    QElapsedTimer t, tick;
    double stall = 0;
    QTimer timer;
    timer.setInterval(1);
    QObject::connect(&timer, &QTimer::timeout, [&] {
        stall = std::max(stall, msSince(tick));
        tick.start();
    });
    t.start();
    tick.start();
    timer.start();
    w.findChild<QPushButton*>("pushButtonHistorySearch")->click();
    done.wait(600000);
    *totalMs = msSince(t);
    return std::max(stall, msSince(tick));
}

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    const auto sandbox = enterBenchSandbox();
    const QString url = sandbox->filePath(QStringLiteral("history.sqlite"));
    QElapsedTimer t;
    t.start();
    {
        QString error;
        auto store = MessageStore::open(url, &error);
        if (!store) {
            std::fprintf(stderr, "%s\n", qPrintable(error));
            return 1;
        }
        for (int day = 0; day < kDays; ++day) {
            std::vector<Row> rows;
            rows.reserve(kPerDay);
            for (int i = 0; i < kPerDay; ++i)
                rows.push_back(message(day, i));
            if (store->addBatch(QStringLiteral("0101-001"), rows, &error) != kPerDay) {
                std::fprintf(stderr, "%s\n", qPrintable(error));
                return 1;
            }
        }
    }
    std::printf("store: %d messages written in %.0f ms\n", kDays * kPerDay, msSince(t));

    QSpinBox offset;
    QComboBox unit;
    HistoryWindow w(&offset, &unit);
    w.openStore(url);
    QSignalSpy opened(&w, &HistoryWindow::sigQueryDone);
    opened.wait(600000); // the first search, everything up to the default limit
    w.show();
    auto* limit = w.findChild<QSpinBox*>("spinBoxHistoryLimit");
    for (int n : {100000, 500000}) {
        limit->setValue(n);
        double total = 0;
        const double stall = searchStall(w, &total);
        std::printf("search of %d messages: %.0f ms to the table, longest event-loop wait %.0f ms\n", n,
                    total, stall);
    }
    {
        // Show in Bearings copies the rows on the window's thread: how long for a big answer.
        t.start();
        w.findChild<QPushButton*>("pushButtonHistoryBearings")->click();
        const double shown = msSince(t);
        QElapsedTimer idle;
        idle.start();
        QCoreApplication::processEvents(); // the fixes the window computes as it opens
        std::printf("Show in Bearings on %d rows: %.0f ms to open, then %.0f ms of events\n",
                    w.proxy()->rowCount(), shown, msSince(idle));
    }
    t.start();
    w.view()->sortByColumn(3, Qt::DescendingOrder); // Time
    std::printf("sort of %d rows by time in the view: %.0f ms\n", w.proxy()->rowCount(), msSince(t));
    w.view()->sortByColumn(-1, Qt::AscendingOrder);

    limit->setValue(0);
    w.findChild<QLineEdit*>("lineEditHistoryPlatform")->setText(QStringLiteral("2A105"));
    w.findChild<QCheckBox*>("checkBoxHistoryFrom")->setChecked(true);
    w.findChild<QCheckBox*>("checkBoxHistoryTo")->setChecked(true);
    w.findChild<QDateTimeEdit*>("dateTimeEditHistoryFrom")
        ->setDateTime(QDateTime(QDate(2026, 11, 20), QTime(0, 0), Qt::UTC));
    w.findChild<QDateTimeEdit*>("dateTimeEditHistoryTo")
        ->setDateTime(QDateTime(QDate(2026, 11, 21), QTime(0, 0), Qt::UTC));
    double total = 0;
    const double stall = searchStall(w, &total);
    std::printf("one platform over one day (%d messages of %d): %.0f ms, longest event-loop wait %.0f ms\n",
                w.proxy()->rowCount(), kDays * kPerDay, total, stall);
    return 0;
}
