// The History window against message stores the test makes (SQLite files in its directory): the
// search gives the store's rows for each choice of receiver, platform, origin, time and limit, with
// no receiver connected; "Show in Bearings" gives the fixes the RX table's Bearings window gives
// for the same messages from the emulator; the exports read back; a store that cannot be used is
// named in the window.
#include "common/WindowFixture.h"
#include "sim/Scenario.h"
#include "store/MessageStore.h"
#include "ui/BearingsWindow.h"
#include "ui/HistoryWindow.h"
#include "ui/UserSettings.h"
#include "utils/PlatformNumber.h"
#include "utils/RxJson.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateTimeEdit>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QSortFilterProxyModel>
#include <QSpinBox>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStandardPaths>
#include <QTableView>

using OrviaGonioManager::Store::MessageStore;
using OrviaGonioManager::Ui::HistoryWindow;
using OrviaGonioManager::Utils::RxTableModel;
using Row = RxTableModel::Row;

namespace {

const char* const kReceiverA = "0101-001";
const char* const kReceiverB = "0202-002";

// The drive of tst_bearingswindow: 20-bit numbers, which a GNX234's flash writes in 7 digits.
const char* const kDrive =
    R"({"receiver": {"path": [[43.59, 1.23], [43.605, 1.28], [43.60, 1.34], [43.62, 1.39]],
    "speed": 20}, "bias": 3, "noise": 2,
    "platforms": [{"id": "3CA97", "label": "Buoy 01", "position": [43.65, 1.26], "format": "ORV-GPS-SIGNED"},
                  {"id": "33BBA", "label": "Float 02", "position": [43.56, 1.33], "format": "ORV-GPS-TWOS"},
                  {"id": "1A9579F", "label": "Tag 03", "position": [43.64, 1.42], "format": "ORV-GPS-MINUTES-28"}]})";

// A message on 2026-11-23 (MJD 61367) at hour:minute.
Row message(const QString& platformId, int hour, int minute, bool flash, bool payload = false)
{
    Row row;
    row.flash = flash;
    auto& m = row.message;
    m.platformIndex = flash ? -1 : 2;
    m.mjd = 61367;
    m.secondsOfDay = hour * 3600 + minute * 60;
    m.platformId = platformId;
    m.frequency = 401668827;
    m.flagBit0 = true;
    m.direction = quint16(hour * 10 + minute);
    m.level = -120;
    m.gnxLatitude = 43.59 + minute / 1000.0;
    m.gnxLongitude = 1.23;
    m.gnxDirection = 249;
    m.payload = QByteArray::fromHex("A43AB0525B2EAEA5");
    row.byNumber.platform = OrviaGonioManager::Utils::PlatformNumber::shortest(platformId);
    row.byNumber.label = QStringLiteral("Buoy");
    row.byNumber.payloadPosition = payload;
    row.byNumber.payloadLatitude = payload ? 43.65 : 0.0;
    row.byNumber.payloadLongitude = payload ? 1.26 : 0.0;
    return row;
}

// The rows as "platform HH:mm origin", sorted: the receiver is not in the table.
QString keys(const std::vector<Row>& rows)
{
    QStringList out;
    for (const Row& row : rows)
        out << QStringList{row.byNumber.platform,
                           QTime(0, 0).addSecs(int(row.message.secondsOfDay)).toString("HH:mm"),
                           row.flash ? "flash" : "live"}
                   .join(' ');
    out.sort();
    return out.join('|');
}

// What the store holds: two receivers, live and flash, one platform written both ways.
const QList<QPair<QString, Row>>& kept()
{
    static const QList<QPair<QString, Row>> rows{
        {kReceiverA, message("002A1B3", 10, 0, true, true)},
        {kReceiverA, message("2A1B3", 10, 0, false, true)}, // the live copy of the flash record
        {kReceiverA, message("002A1B3", 11, 0, true)},
        {kReceiverA, message("1A9579F", 10, 30, false, true)},
        {kReceiverA, message("2A1B3", 12, 0, false)},
        {kReceiverB, message("2A1B3", 10, 15, false, true)},
        {kReceiverB, message("03CA97", 13, 0, true)},
    };
    return rows;
}

QDateTime at(int hour, int minute = 0)
{
    return QDateTime(QDate(2026, 11, 23), QTime(hour, minute), Qt::UTC);
}

} // namespace

class TestHistoryWindow : public QObject, private WindowFixture
{
    Q_OBJECT

    QString store_; // the store kept() fills

    template <typename T> T* child(QWidget* w, const char* name) const
    {
        T* c = w->findChild<T*>(name);
        if (!c)
            qWarning("no %s", name);
        return c;
    }
    QString status(HistoryWindow* w) const { return child<QLabel>(w, "labelHistoryStatus")->text(); }

    // The History window as the main window's tool bar opens it, with no receiver connected, on
    // the store the user's store/url names.
    HistoryWindow* openHistory(const QString& url)
    {
        OrviaGonioManager::Ui::userSettings().setValue("store/url", url);
        if (!window_ && !showWindow({}))
            return nullptr;
        QSignalSpy done(window_->historyWindow(), &HistoryWindow::sigQueryDone);
        window_->historyAction()->trigger();
        if (!window_->historyWindow()->isVisible() || !done.wait(10000))
            return nullptr;
        return window_->historyWindow();
    }

    // Clicks Search and waits for its answer.
    static bool search(HistoryWindow* w)
    {
        QSignalSpy done(w, &HistoryWindow::sigQueryDone);
        w->findChild<QPushButton*>("pushButtonHistorySearch")->click();
        return !done.isEmpty() || done.wait(10000); // a search refused at once answers at once
    }

    // Rows a and b of the view, as the user picks them.
    static void selectRows(HistoryWindow* w, int a, int b)
    {
        w->view()->selectRow(a);
        w->view()->selectionModel()->select(w->proxy()->index(b, 0),
                                            QItemSelectionModel::Select | QItemSelectionModel::Rows);
    }

    bool exportTo(HistoryWindow* w, const char* button, const QString& file)
    {
        dialogs_->files.enqueue(file);
        QSignalSpy done(w, &HistoryWindow::sigExportDone);
        w->findChild<QPushButton*>(button)->click();
        return done.wait(10000);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(setUpWorkDir());
        store_ = workDir_.filePath("kept.sqlite");
        QString error;
        auto store = MessageStore::open(store_, &error);
        QVERIFY2(store, qPrintable(error));
        for (const auto& [receiver, row] : kept())
            QCOMPARE(store->addBatch(receiver, {row}, &error), 1);
    }
    void init() { resetDialogs(); }
    void cleanup() { tearDown(); }

    void query_data()
    {
        QTest::addColumn<QString>("receiver");
        QTest::addColumn<QString>("platform");
        QTest::addColumn<int>("origin"); // the combo box's row: any, live, flash
        QTest::addColumn<QDateTime>("from");
        QTest::addColumn<QDateTime>("to");
        QTest::addColumn<int>("limit");
        QTest::addColumn<QString>("expected"); // the rows' keys, or the status text
        const auto rows = [&](const QList<int>& which) {
            std::vector<Row> out;
            for (int i : which)
                out.push_back(kept()[i].second);
            return keys(out);
        };
        const auto row = [&](const char* name, const QString& receiver, const QString& platform, int origin,
                             const QDateTime& from, const QDateTime& to, int limit, const QString& expected) {
            QTest::newRow(name) << receiver << platform << origin << from << to << limit << expected;
        };
        const QDateTime any;
        row("everything", "", "", 0, any, any, 0, rows({0, 1, 2, 3, 4, 5, 6}));
        row("one receiver", kReceiverB, "", 0, any, any, 0, rows({5, 6}));
        row("platform in 5 digits", "", "2A1B3", 0, any, any, 0, rows({0, 1, 2, 4, 5}));
        row("platform in 7 digits, lower case", kReceiverA, "002a1b3", 0, any, any, 0, rows({0, 1, 2, 4}));
        row("platform in 6 digits", "", "03CA97", 0, any, any, 0, rows({6}));
        row("live", "", "", 1, any, any, 0, rows({1, 3, 4, 5}));
        row("flash of a receiver", kReceiverA, "", 2, any, any, 0, rows({0, 2}));
        row("from included, to excluded", "", "", 0, at(10, 15), at(12), 0, rows({2, 3, 5}));
        row("from only", "", "2A1B3", 1, at(10, 1), any, 0, rows({4, 5}));
        row("the oldest three", "", "", 0, any, any, 3, rows({0, 1, 5}));
        row("nothing", "", "FFFFF", 0, any, any, 0, "No messages");
        row("to before from", "", "", 0, at(12), at(11), 0, "No messages: \"To\" is not after \"From\"");
    }

    void query()
    {
        QFETCH(QString, receiver);
        QFETCH(QString, platform);
        QFETCH(int, origin);
        QFETCH(QDateTime, from);
        QFETCH(QDateTime, to);
        QFETCH(int, limit);
        QFETCH(QString, expected);
        HistoryWindow* w = openHistory(store_);
        QVERIFY(w);
        QCOMPARE(w->storeUrl(), store_);
        QCOMPARE(status(w), QString("7 messages"));
        auto* receivers = child<QComboBox>(w, "comboBoxHistoryReceiver");
        QCOMPARE(receivers->count(), 3); // any, and the store's two
        receivers->setCurrentIndex(receivers->findData(receiver));
        QVERIFY(receivers->currentIndex() >= 0);
        child<QLineEdit>(w, "lineEditHistoryPlatform")->setText(platform);
        child<QComboBox>(w, "comboBoxHistoryOrigin")->setCurrentIndex(origin);
        child<QCheckBox>(w, "checkBoxHistoryFrom")->setChecked(from.isValid());
        child<QCheckBox>(w, "checkBoxHistoryTo")->setChecked(to.isValid());
        if (from.isValid())
            child<QDateTimeEdit>(w, "dateTimeEditHistoryFrom")->setDateTime(from);
        if (to.isValid())
            child<QDateTimeEdit>(w, "dateTimeEditHistoryTo")->setDateTime(to);
        child<QSpinBox>(w, "spinBoxHistoryLimit")->setValue(limit);
        QVERIFY(search(w));
        const bool rows = !expected.startsWith("No messages");
        QCOMPARE(keys(w->chosenRows()), rows ? expected : QString());
        QCOMPARE(w->findChild<QPushButton*>("pushButtonHistoryBearings")->isEnabled(), rows);
        QCOMPARE(w->findChild<QPushButton*>("pushButtonHistoryExportCsv")->isEnabled(), rows);
        const int n = int(expected.count('|')) + 1;
        QCOMPARE(status(w), !rows ? expected
                            : limit > 0
                                ? QString("%1 messages, the oldest ones only: narrow the search or raise "
                                          "the limit")
                                      .arg(n)
                                : QString("%1 message%2").arg(n).arg(n == 1 ? "" : "s"));
        // The table is the RX table's: its header, its cells.
        QCOMPARE(w->view()->model()->columnCount(), int(RxTableModel::COLUMN_COUNT));
        QCOMPARE(w->view()->model()->headerData(RxTableModel::COL_TIME, Qt::Horizontal).toString(),
                 RxTableModel::headerTexts()[RxTableModel::COL_TIME]);
    }

    // The filter box and the headers work on the rows found.
    void filterAndSort()
    {
        HistoryWindow* w = openHistory(store_);
        QVERIFY(w);
        child<QLineEdit>(w, "lineEditHistoryFilter")->setText("FLASH");
        QCOMPARE(w->proxy()->rowCount(), 3);
        QCOMPARE(status(w), QString("7 messages; 3 shown"));
        for (const Row& row : w->chosenRows())
            QVERIFY(row.flash);
        child<QLineEdit>(w, "lineEditHistoryFilter")->clear();
        w->view()->sortByColumn(RxTableModel::COL_TIME, Qt::AscendingOrder);
        const std::vector<Row> rows = w->chosenRows();
        QCOMPARE(rows.size(), size_t(7));
        QCOMPARE(rows.front().message.secondsOfDay, 10 * 3600.0);
        QCOMPARE(rows.back().message.secondsOfDay, 13 * 3600.0);
        // The selected rows only, once some are.
        selectRows(w, 6, 5);
        QCOMPARE(w->chosenRows().size(), size_t(2));
        QCOMPARE(w->chosenRows().back().message.secondsOfDay, 13 * 3600.0);
        QCOMPARE(status(w), QString("7 messages; 2 selected"));
    }

    void exports_data()
    {
        QTest::addColumn<QString>("button");
        QTest::addColumn<bool>("selected"); // the two newest rows only; every format takes the same rows
        QTest::newRow("csv") << "pushButtonHistoryExportCsv" << false;
        QTest::newRow("csv of a selection") << "pushButtonHistoryExportCsv" << true;
        QTest::newRow("json lines") << "pushButtonHistoryExportJsonl" << false;
        QTest::newRow("geojson") << "pushButtonHistoryExportGeoJson" << false;
    }

    void exports()
    {
        QFETCH(QString, button);
        QFETCH(bool, selected);
        HistoryWindow* w = openHistory(store_);
        QVERIFY(w);
        w->view()->sortByColumn(RxTableModel::COL_TIME, Qt::DescendingOrder);
        if (selected)
            selectRows(w, 0, 1);
        const std::vector<Row> rows = w->chosenRows();
        QCOMPARE(rows.size(), size_t(selected ? 2 : 7));
        const QString file = workDir_.filePath(QString(QTest::currentDataTag()).replace(' ', '_'));
        QVERIFY(exportTo(w, qPrintable(button), file));
        QVERIFY2(dialogs_->criticals.isEmpty(), qPrintable(dialogs_->criticals.join('|')));
        QCOMPARE(status(w), QString("Exported %1 messages to %2").arg(rows.size()).arg(file));
        const QByteArray text = readAll(file);
        const QList<QByteArray> lines = text.trimmed().split('\n');

        if (button.endsWith("Csv")) { // the RX table's export: its header, its lines, in the order shown
            QCOMPARE(lines.size(), qsizetype(rows.size()) + 1);
            QCOMPARE(QString::fromLatin1(lines[0]), RxTableModel::headerTexts().join(','));
            for (size_t i = 0; i < rows.size(); ++i)
                QCOMPARE(QString::fromLatin1(lines[qsizetype(i) + 1]),
                         RxTableModel::exportLine(rows[i], OrviaGonioManager::Com::GnxLink::COORDTYPE_DEG));
            QVERIFY(lines[1].contains("13:00:00")); // newest first, as sorted
        } else if (button.endsWith("Jsonl")) {      // read back as gnxctl bearings reads it
            QCOMPARE(lines.size(), qsizetype(rows.size()));
            for (size_t i = 0; i < rows.size(); ++i) {
                QString error;
                const auto back = OrviaGonioManager::Utils::rxFromJson(
                    QJsonDocument::fromJson(lines[qsizetype(i)]).object(), &error);
                QVERIFY2(back, qPrintable(error));
                const Row& r = rows[i];
                QCOMPARE(back->flash, r.flash);
                QCOMPARE(back->message.platformId, r.message.platformId);
                QCOMPARE(back->message.mjd, r.message.mjd);
                QCOMPARE(back->message.secondsOfDay, r.message.secondsOfDay);
                QCOMPARE(back->message.direction, r.message.direction);
                QCOMPARE(back->message.gnxLatitude, r.message.gnxLatitude);
                QCOMPARE(back->message.payload, r.message.payload);
                QCOMPARE(back->byNumber.platform, r.byNumber.platform);
                QCOMPARE(back->byNumber.label, r.byNumber.label);
                QCOMPARE(back->byNumber.payloadPosition, r.byNumber.payloadPosition);
            }
        } else { // a point at each payload position and at each receiver position
            const QJsonArray features = QJsonDocument::fromJson(text)["features"].toArray();
            int payloads = 0;
            for (const Row& r : rows)
                payloads += r.byNumber.payloadPosition;
            QCOMPARE(payloads, 4);
            QCOMPARE(features.size(), payloads + qsizetype(rows.size()));
            QCOMPARE(features[0]["properties"]["time"].toString(), QString("2026-11-23T13:00:00.000Z"));
            QCOMPARE(features[0]["properties"]["position"].toString(), QString("receiver"));
            QCOMPARE(features[0]["geometry"]["coordinates"].toArray(), (QJsonArray{1.23, 43.59}));
            const QString ogrinfo = QStandardPaths::findExecutable("ogrinfo");
            if (ogrinfo.isEmpty())
                QSKIP("ogrinfo (gdal-bin) is not installed: the file was not read by a GIS");
            QProcess p;
            p.start(ogrinfo, {"-ro", "-so", "-al", file});
            QVERIFY(p.waitForFinished(60000));
            const QByteArray said = p.readAllStandardOutput();
            QVERIFY2(p.exitCode() == 0 && said.contains("Geometry: Point") &&
                         said.contains(QString("Feature Count: %1").arg(features.size()).toLatin1()),
                     said + p.readAllStandardError());
        }
        // A file that cannot be written: said, and nothing else changes.
        QVERIFY(exportTo(w, qPrintable(button), workDir_.filePath("no/such/dir/file")));
        QCOMPARE(dialogs_->criticals.size(), 1);
        QVERIFY2(dialogs_->criticals[0].startsWith("Unable to open " + workDir_.filePath("no/such/dir/file")),
                 qPrintable(dialogs_->criticals[0]));
        QCOMPARE(status(w), dialogs_->criticals[0]);
    }

    void unusableStore_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("said"); // %1: the store's path
        QTest::newRow("not a store") << QString("text") << QString("%1: not a message store");
        QTest::newRow("a directory") << QString("directory") << QString("%1: not a file");
        QTest::newRow("no such directory") << QString("missing") << QString("%1: no such store");
        QTest::newRow("a newer store") << QString("newer") << QString("%1: ");
    }

    // Named in the window, whether it came from the preferences, "Open store..." or the store field.
    void unusableStore()
    {
        QFETCH(QString, kind);
        QFETCH(QString, said);
        const QString path = kind == "missing" ? workDir_.filePath("missing/kept.sqlite")
                                               : workDir_.filePath("unusable-" + kind);
        if (kind == "text")
            QVERIFY(!writeFile("unusable-text", "hello\n").isEmpty());
        else if (kind == "directory")
            QVERIFY(QDir().mkpath(path));
        else if (kind == "newer") {
            QVERIFY(QFile::copy(store_, path));
            {
                QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "newer");
                db.setDatabaseName(path);
                QVERIFY(db.open());
                QSqlQuery q(db);
                QVERIFY(q.exec("UPDATE schema_version SET version = 99"));
                db.close();
            }
            QSqlDatabase::removeDatabase("newer");
        }
        // The user's preference names it.
        HistoryWindow* w = openHistory(path);
        QVERIFY(w);
        const QString expected = said.arg(path);
        QVERIFY2(status(w).startsWith(expected), qPrintable(status(w)));
        if (kind == "newer")
            QVERIFY2(status(w).contains("schema version 99"), qPrintable(status(w)));
        QCOMPARE(w->model()->rowCount(), 0);
        QVERIFY(!w->findChild<QPushButton*>("pushButtonHistoryBearings")->isEnabled());
        QVERIFY(w->storeUrl().isEmpty());

        // "Open store..." on a good one, then the field back to the bad one.
        QSignalSpy done(w, &HistoryWindow::sigQueryDone);
        dialogs_->files.enqueue(store_);
        child<QPushButton>(w, "pushButtonHistoryOpenStore")->click();
        QVERIFY(done.wait(10000));
        QCOMPARE(status(w), QString("7 messages"));
        QCOMPARE(w->storeUrl(), store_);
        auto* field = child<QLineEdit>(w, "lineEditHistoryStore");
        field->setText(path);
        QTest::keyClick(field, Qt::Key_Return);
        QVERIFY(done.wait(10000));
        QVERIFY2(status(w).startsWith(expected), qPrintable(status(w)));
        QCOMPARE(w->model()->rowCount(), 0);
    }

    void bearings_data() { bothModels(); }

    // The messages of a drive, from flash and live, kept in a store: the History's Bearings window
    // gives the fixes the RX table's gives, also for a selection of one platform.
    void bearings()
    {
        QFETCH(QString, model);
        QString error;
        auto scenario = gnxsim::Scenario::fromJson(kDrive, &error);
        QVERIFY2(scenario, qPrintable(error));
        gnxsim::Options options = simOptions(model, 0, 90);
        options.scenario = scenario;
        QVERIFY(startAndConnect(options));
        QTRY_COMPARE_WITH_TIMEOUT(ui()->tableWidgetPlatforms->rowCount(), 3, 10000);
        ui()->pushButtonRxFlashRead->click();
        QVERIFY2(dialogs_->criticals.isEmpty(), qPrintable(dialogs_->criticals.join('|')));
        for (int slot = 0; slot < 3; ++slot)
            QVERIFY(sim_->emitNpr(slot, true));
        QTRY_COMPARE_WITH_TIMEOUT(window_->rxModel()->allRowCount(), 93, 10000);
        window_->bearingsAction()->trigger();
        OrviaGonioManager::Ui::BearingsWindow* rx = window_->bearingsWindow();
        QTRY_VERIFY_WITH_TIMEOUT(rx->fixesReady() && rx->fixes().size() == 3, 10000);

        // The RX table's messages kept, as the window keeps them.
        std::vector<Row> rows;
        for (int i = 0; i < window_->rxModel()->allRowCount(); ++i)
            rows.push_back(window_->rxModel()->rowAt(i));
        const QString url = workDir_.filePath(model + ".sqlite");
        {
            auto store = MessageStore::open(url, &error);
            QVERIFY2(store, qPrintable(error));
            QCOMPARE(store->addBatch(sim_->serialNumber(), rows, &error), 93);
        }
        HistoryWindow* w = openHistory(url);
        QVERIFY(w);
        QCOMPARE(status(w), QString("93 messages"));
        child<QPushButton>(w, "pushButtonHistoryBearings")->click();
        OrviaGonioManager::Ui::BearingsWindow* kept = w->bearingsWindow();
        QVERIFY(kept && kept->isVisible() && kept != rx);
        QTRY_VERIFY_WITH_TIMEOUT(kept->fixesReady() && kept->fixes().size() == 3, 10000);
        const auto same = [](const OrviaGonioManager::Geo::Fix& a, const OrviaGonioManager::Geo::Fix& b) {
            return a.ok && b.ok && a.used == b.used && a.outliers == b.outliers &&
                   qFuzzyCompare(a.position.latitude, b.position.latitude) &&
                   qFuzzyCompare(a.position.longitude, b.position.longitude) &&
                   qFuzzyCompare(a.semiMajor, b.semiMajor);
        };
        for (const auto& [id, fix] : rx->fixes()) {
            QVERIFY2(kept->fixes().count(id), qPrintable(id));
            QVERIFY2(same(fix, kept->fixes().at(id)), qPrintable(id));
            QCOMPARE(kept->bearings().platforms().at(id).label, rx->bearings().platforms().at(id).label);
            QCOMPARE(kept->bearings().platforms().at(id).bearings.size(), size_t(31));
        }
        // Kept messages may be another receiver's: no offset goes to the one connected from here.
        QVERIFY(!kept->findChild<QPushButton*>("pushButtonBearingsApply")->isEnabled());

        // One platform: the RX table's filter, and the History's selection of its rows.
        ui()->lineEditRxIdFilter->setText("33BBA");
        QTRY_VERIFY_WITH_TIMEOUT(rx->fixesReady() && rx->fixes().size() == 1, 5000);
        child<QLineEdit>(w, "lineEditHistoryPlatform")->setText("0033bba");
        QVERIFY(search(w));
        QCOMPARE(status(w), QString("31 messages"));
        w->view()->selectAll();
        child<QPushButton>(w, "pushButtonHistoryBearings")->click();
        QTRY_VERIFY_WITH_TIMEOUT(kept->fixesReady() && kept->fixes().size() == 1, 10000);
        QVERIFY(same(rx->fixes().at("33BBA"), kept->fixes().at("33BBA")));
    }
};

QTEST_MAIN(TestHistoryWindow)
#include "tst_historywindow.moc"
